// One line from a program that uses GLib with GIO.
#include <gio/gio.h>

int main(void)
{
    GFile *file = g_file_new_for_path(".");
    g_print("%d\n", file != NULL ? 1 : 0);
    g_object_unref(file);
    return 0;
}
