// One line from a program that uses the C library alone.
#include <stdio.h>
#include <stdlib.h>

int main(void)
{
    void *memory = malloc(1000);
    printf("%d\n", memory != NULL ? 1 : 0);
    free(memory);
    return 0;
}
