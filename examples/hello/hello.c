#include <korvaks/fileutl.h>
#include <korvaks/imsg.h>
#include <korvaks/ks_product.h>

static const char *const texts[] = {"%08x  %s\n", "%s: %s\n"};
static const uint16_t numbers[] = {1, 2};
static const msg_table messages = {"hello", "hello", 1, MSG_TABLE_COUNT(texts), texts, numbers};

int main(int argc, char **argv)
{
    ks_system_init();
    imsg_set_app_name(argv[0]);
    int status = 0;
    for (int i = 1; i < argc; ++i) {
        uint32_t crc;
        int error;
        const int result = fileutl_crc(argv[i], &crc, &error);
        if (result == 0)
            imsg_print(IMSG_OUTPUT, &messages, 0, crc, argv[i]);
        else
            imsg_print(IMSG_ERROR, &messages, 1, argv[i], imsg_strerror(error));
        status |= result != 0;
    }
    return status;
}
