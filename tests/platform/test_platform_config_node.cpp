/* The node's identity in the platform config: [node] node_type and
 * [cap] CAP_DEV_TYPE say the same thing twice, so either gives the other and
 * a disagreement is a configuration error. */
#include "test_mom_helpers.h"

#include "qn_platform_config.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct loaded {
    std::unique_ptr<qn_platform_config> cfg;
    std::string error;
    std::string path;
};

loaded load(const std::string &text)
{
    config_file f(text);
    loaded out;
    out.path = f.path;
    out.cfg = qn_platform_config_load(&out.error);
    return out;
}

TEST(PlatformConfigNode, NodeTypeFollowsTheCapabilityDeviceTypeWhenNotGiven)
{
    EXPECT_EQ(load("[cap]\nCAP_DEV_TYPE = LC\n").cfg->node_type, 3);
    EXPECT_EQ(load("[cap]\nCAP_DEV_TYPE = CM\n").cfg->node_type, 2);
    EXPECT_EQ(load("[cap]\nCAP_DEV_TYPE = BOX\n").cfg->node_type, 1);
    EXPECT_EQ(load("[node]\ndevid = 0\n").cfg->node_type, 1); /* a box by default */
    /* A device type the device manager does not know leaves the default. */
    EXPECT_EQ(load("[cap]\nCAP_DEV_TYPE = XX\n").cfg->node_type, 1);
}

TEST(PlatformConfigNode, AgreeingKeysAreAccepted)
{
    loaded l = load("[node]\nnode_type = 3\n[cap]\nCAP_DEV_TYPE = LC\n");
    ASSERT_NE(l.cfg, nullptr) << l.error;
    EXPECT_EQ(l.cfg->node_type, 3);
    l = load("[node]\nnode_type = 2\n");
    ASSERT_NE(l.cfg, nullptr) << l.error;
    EXPECT_EQ(l.cfg->node_type, 2);
    l = load("[node]\nnode_type = 3\n[cap]\nCAP_DEV_TYPE = XX\n");
    ASSERT_NE(l.cfg, nullptr) << l.error;
}

TEST(PlatformConfigNode, DisagreeingKeysAreRefusedInOneLineNamingBoth)
{
    loaded l = load("[node]\nnode_type = 2\n[cap]\nCAP_DEV_TYPE = LC\n");
    EXPECT_EQ(l.cfg, nullptr);
    EXPECT_EQ(l.error, l.path + ": [node] node_type = 2 disagrees with [cap] CAP_DEV_TYPE = LC "
                                "(node types: 1 BOX, 2 CM, 3 LC)");
    l = load("[cap]\nCAP_DEV_TYPE = BOX\n[node]\nnode_type = 3\n");
    EXPECT_EQ(l.cfg, nullptr);
    EXPECT_NE(l.error.find("[node] node_type = 3 disagrees with [cap] CAP_DEV_TYPE = BOX"), std::string::npos)
        << l.error;
    EXPECT_EQ(l.error.find('\n'), std::string::npos);
}

} // namespace
