// One line from a program that starts APR and makes a pool.
#include <apr_file_io.h>
#include <apr_general.h>
#include <apr_pools.h>

int main(int argc, char const *const *argv, char const *const *env)
{
    apr_pool_t *pool;
    apr_file_t *out;
    if (apr_app_initialize(&argc, &argv, &env) != APR_SUCCESS || apr_pool_create(&pool, NULL) != APR_SUCCESS ||
        apr_file_open_stdout(&out, pool) != APR_SUCCESS)
        return 1;
    apr_file_printf(out, "%d\n", apr_palloc(pool, 100) != NULL ? 1 : 0);
    apr_terminate();
    return 0;
}
