/* The end of start-up, told to the service manager (systemd's READY=1): the
 * loop calls this on its first fetch. */
#include "qn_thread_standin.h"

#include <systemd/sd-daemon.h>

void qn_platform_startup_done(void)
{
    sd_notify(0, "READY=1");
}
