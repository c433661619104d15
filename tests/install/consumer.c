/* A C application of the installed library. */
#include <stdio.h>

#include <tovi/tovi_init.h>
#include <tovi/tovi_jiffies.h>
#include <tovi/tovi_version.h>

int main(void)
{
    if (tovi_Init() != 0)
        return 1;
    printf("%s %s %d\n", TOVI_VERSION_STRING, tovi_pid_get_name(381), tovi_get_jiffies() > 0);
    return tovi_destory() == 0 ? 0 : 1;
}
