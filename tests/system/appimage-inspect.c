/* Reads an AppImage through the system's libappimage and prints what it
 * sees: its type, where its payload begins and the files it holds. */
#include <appimage/appimage.h>

#include <stdio.h>

int main(int argc, char* argv[])
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s APPIMAGE\n", argv[0]);
        return 2;
    }
    printf("type %d\n", appimage_get_type(argv[1], false));
    printf("offset %lld\n", (long long)appimage_get_payload_offset(argv[1]));
    char** files = appimage_list_files(argv[1]);
    for (char** file = files; file && *file; ++file)
        printf("file %s\n", *file);
    appimage_string_list_free(files);
    return 0;
}
