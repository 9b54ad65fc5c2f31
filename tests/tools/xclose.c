/* Sends a window manager's close request (WM_DELETE_WINDOW) to the first
 * mapped window whose title contains a text, as a window manager would when
 * the user clicks the close button. Waits for the window to appear, and
 * repeats the request until the window is gone: a request that arrives while
 * the toolkit is still setting the window up may be dropped.
 * Usage: xclose TITLE-PART [SECONDS] */
#include <xcb/xcb.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

static xcb_atom_t atom(xcb_connection_t* c, const char* name)
{
    xcb_intern_atom_reply_t* r = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, strlen(name), name), NULL);
    xcb_atom_t a = r ? r->atom : XCB_ATOM_NONE;
    free(r);
    return a;
}

static int titleContains(xcb_connection_t* c, xcb_window_t w, xcb_atom_t prop, xcb_atom_t type, const char* part)
{
    xcb_get_property_reply_t* r =
        xcb_get_property_reply(c, xcb_get_property(c, 0, w, prop, type, 0, 1024), NULL);
    int found = 0;
    if (r) {
        int len = xcb_get_property_value_length(r);
        char* text = malloc(len + 1);
        memcpy(text, xcb_get_property_value(r), len);
        text[len] = '\0';
        found = strstr(text, part) != NULL;
        free(text);
        free(r);
    }
    return found;
}

static int isViewable(xcb_connection_t* c, xcb_window_t w)
{
    xcb_get_window_attributes_reply_t* r =
        xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, w), NULL);
    int viewable = r && r->map_state == XCB_MAP_STATE_VIEWABLE;
    free(r);
    return viewable;
}

static void sendDelete(xcb_connection_t* c, xcb_window_t w, xcb_atom_t protocols, xcb_atom_t deleteWindow)
{
    xcb_client_message_event_t ev;
    memset(&ev, 0, sizeof ev);
    ev.response_type = XCB_CLIENT_MESSAGE;
    ev.format = 32;
    ev.window = w;
    ev.type = protocols;
    ev.data.data32[0] = deleteWindow;
    ev.data.data32[1] = XCB_CURRENT_TIME;
    xcb_send_event(c, 0, w, XCB_EVENT_MASK_NO_EVENT, (const char*)&ev);
    xcb_flush(c);
}

static xcb_window_t findWindow(xcb_connection_t* c, xcb_window_t parent, const char* part, xcb_atom_t netName,
                               xcb_atom_t utf8)
{
    xcb_query_tree_reply_t* tree = xcb_query_tree_reply(c, xcb_query_tree(c, parent), NULL);
    if (!tree)
        return XCB_WINDOW_NONE;
    xcb_window_t* children = xcb_query_tree_children(tree);
    xcb_window_t hit = XCB_WINDOW_NONE;
    for (int i = 0; i < xcb_query_tree_children_length(tree) && hit == XCB_WINDOW_NONE; ++i) {
        if (isViewable(c, children[i])
            && (titleContains(c, children[i], netName, utf8, part)
                || titleContains(c, children[i], XCB_ATOM_WM_NAME, XCB_ATOM_STRING, part)))
            hit = children[i];
        else
            hit = findWindow(c, children[i], part, netName, utf8);
    }
    free(tree);
    return hit;
}

int main(int argc, char** argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: xclose TITLE-PART [SECONDS]\n");
        return 2;
    }
    const double seconds = argc > 2 ? atof(argv[2]) : 20.0;
    xcb_connection_t* c = xcb_connect(NULL, NULL);
    if (xcb_connection_has_error(c)) {
        fprintf(stderr, "xclose: cannot connect to the X server\n");
        return 2;
    }
    xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    xcb_atom_t netName = atom(c, "_NET_WM_NAME"), utf8 = atom(c, "UTF8_STRING");
    xcb_atom_t protocols = atom(c, "WM_PROTOCOLS"), deleteWindow = atom(c, "WM_DELETE_WINDOW");

    const struct timespec pause = {0, 100 * 1000 * 1000};
    int sent = 0;
    for (double waited = 0; waited < seconds; waited += 0.1) {
        xcb_window_t w = findWindow(c, root, argv[1], netName, utf8);
        if (w == XCB_WINDOW_NONE && sent) {
            xcb_disconnect(c);
            return 0;
        }
        if (w != XCB_WINDOW_NONE && (!sent || (int)(waited * 10) % 10 == 0)) {
            sendDelete(c, w, protocols, deleteWindow);
            sent = 1;
        }
        nanosleep(&pause, NULL);
    }
    fprintf(stderr, sent ? "xclose: the window titled like \"%s\" stayed open\n"
                         : "xclose: no window titled like \"%s\"\n", argv[1]);
    xcb_disconnect(c);
    return 1;
}
