// One line from a program that starts the library and makes an area.
#include <korvaks/imsg.h>
#include <korvaks/ks_product.h>
#include <korvaks/stg.h>

static const char *const texts[] = {"%d\n"};
static const uint16_t numbers[] = {1};
static const msg_table messages = {"start", "start", 1, MSG_TABLE_COUNT(texts), texts, numbers};

int main(int argc, char **argv)
{
    (void)argc;
    ks_system_init();
    imsg_set_app_name(argv[0]);
    stg_area *area = stg_create_area(1000);
    imsg_print(IMSG_OUTPUT, &messages, 0, stg_alloc(area, 100) != NULL ? 1 : 0);
    stg_delete_area(&area);
    return 0;
}
