/* Publishes one I/O record on the bus named by STOVIG_CONFIG, as a node
 * would: io_record_writer DEVID SLOT SSLOT DISK_NAME FLAG.  The disk name is
 * taken byte for byte, control bytes included, so tests can send the names a
 * hostile node could. */
#include "proto/p_utils.pb-c.h"
#include "qn_mom.h"
#include "qn_thread.h"

#include <cstdio>
#include <cstdlib>

namespace {

qn_thread_master *loop;
bool done;

void run_loop()
{
    qn_thread t;
    while (!done && qn_thread_fetch(loop, &t))
        qn_thread_call(&t);
    done = false;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 6) {
        fprintf(stderr, "usage: io_record_writer DEVID SLOT SSLOT DISK_NAME FLAG\n");
        return 2;
    }
    loop = qn_thread_master_create();
    if (!loop)
        return 2;
    qn_mom_client_t *client = qn_mom_client_init("IO-RECORD-WRITER", loop);
    if (!client ||
        qn_mom_client_connect(client, QN_MOM_MONITOR_DB,
                              [](qn_mom_client_t *, uint32_t, void *) {
                                  done = true;
                                  return 0;
                              },
                              nullptr) != 0)
        return 2;
    run_loop();

    PUtils__Nodeindex index = P_UTILS__NODEINDEX__INIT;
    index.t_devid = atoi(argv[1]);
    index.t_slotid = atoi(argv[2]);
    index.t_sslotid = atoi(argv[3]);
    PUtils__DiskIo disk = P_UTILS__DISK_IO__INIT;
    disk.disk_name = argv[4];
    disk.io_read = 1.5;
    disk.io_write = 2.25;
    disk.io_util = 97.0;
    disk.io_flag = atof(argv[5]);
    PUtils__DiskIo *disks[] = {&disk};
    PUtils__StovigIo rec = P_UTILS__STOVIG_IO__INIT;
    rec.index = &index;
    rec.n_disk_io_info = 1;
    rec.disk_io_info = disks;
    int ret = qn_mom_set(client, QN_MOM_MONITOR_DB, &rec.base, 0, 0);
    if (ret != 0) {
        fprintf(stderr, "io_record_writer: set failed with %d\n", ret);
        return 1;
    }
    /* Replies on one connection come in order: the end of a scan issued now
     * means the set has been carried out. */
    PUtils__StovigIo pattern = P_UTILS__STOVIG_IO__INIT;
    PUtils__Nodeindex any = P_UTILS__NODEINDEX__INIT;
    pattern.index = &any;
    if (qn_mom_scan(client, QN_MOM_MONITOR_DB, &pattern.base, 0,
                    [](void *, qn_mom_reply_t *r) {
                        if (r->scan_state == QN_MOM_SCAN_OVER)
                            done = true;
                        return 0;
                    },
                    nullptr) == 0)
        run_loop();
    return 0;
}
