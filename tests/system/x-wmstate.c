/* Sets a window's WM_STATE as a window manager would on minimise and
 * restore, for end-to-end runs on an X server without one.
 *   tavelin-x-wmstate WINDOW iconic|normal */
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char* argv[])
{
    if (argc != 3 || (strcmp(argv[2], "iconic") != 0 && strcmp(argv[2], "normal") != 0)) {
        fprintf(stderr, "usage: %s WINDOW iconic|normal\n", argv[0]);
        return 2;
    }
    Display* display = XOpenDisplay(NULL);
    if (!display) {
        fprintf(stderr, "%s: cannot open the display\n", argv[0]);
        return 1;
    }
    Window window = (Window)strtoul(argv[1], NULL, 0);
    Atom wmState = XInternAtom(display, "WM_STATE", False);
    long data[2] = {strcmp(argv[2], "iconic") == 0 ? IconicState : NormalState, None};
    XChangeProperty(display, window, wmState, wmState, 32, PropModeReplace, (unsigned char*)data, 2);
    XSync(display, False);
    XCloseDisplay(display);
    return 0;
}
