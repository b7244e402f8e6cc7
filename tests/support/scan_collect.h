/* Test helper: what a scan of one record kind returns, collected while the
 * loop runs until the scan is over. */
#ifndef TEST_SCAN_COLLECT_H
#define TEST_SCAN_COLLECT_H

#include "test_mom_helpers.h"

#include "qn_mom.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

/* One record of a scan: its key and, when it came with a value, the value
 * packed. */
struct scanned_record {
    std::string key;
    bool has_value = false;
    std::string packed;
};

inline std::vector<scanned_record> scan_collect(qn_mom_client_t *client, uint32_t db,
                                                const ProtobufCMessage *pattern)
{
    static std::vector<scanned_record> got;
    static bool over;
    got.clear();
    over = false;
    EXPECT_EQ(qn_mom_scan(client, db, pattern, 0,
                          [](void *, qn_mom_reply_t *r) {
                              if (r->scan_state == QN_MOM_SCAN_OVER) {
                                  over = true;
                                  return 0;
                              }
                              scanned_record rec;
                              if (r->key)
                                  rec.key = r->key;
                              if (r->res && r->res->value) {
                                  rec.has_value = true;
                                  rec.packed.resize(protobuf_c_message_get_packed_size(r->res->value));
                                  protobuf_c_message_pack(r->res->value, reinterpret_cast<uint8_t *>(rec.packed.data()));
                              }
                              got.push_back(rec);
                              return 0;
                          },
                          nullptr),
              0);
    run_until([] { return over; });
    return got;
}

#endif
