/* [metrics] listen: off by default; a numeric address and a port, or a
 * configuration error naming the key. */
#include "test_mom_helpers.h"

#include "qn_platform_config.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::unique_ptr<qn_platform_config> load(const std::string &text, std::string *error)
{
    config_file f(text);
    return qn_platform_config_load(error);
}

TEST(PlatformConfigMetrics, OffByDefault)
{
    std::string error;
    auto cfg = load("[node]\ndevid = 0\n", &error);
    ASSERT_NE(nullptr, cfg) << error;
    EXPECT_EQ("", cfg->metrics_listen);
    EXPECT_EQ(0, cfg->metrics_port);
    cfg = load("[metrics]\nlisten =\n", &error);
    ASSERT_NE(nullptr, cfg) << error;
    EXPECT_EQ("", cfg->metrics_listen);
}

TEST(PlatformConfigMetrics, NumericAddressesAndPorts)
{
    std::string error;
    auto cfg = load("[metrics]\nlisten = 127.0.0.1:9464\n", &error);
    ASSERT_NE(nullptr, cfg) << error;
    EXPECT_EQ("127.0.0.1", cfg->metrics_host);
    EXPECT_EQ(9464, cfg->metrics_port);
    cfg = load("[metrics]\nlisten = [::1]:1\n", &error);
    ASSERT_NE(nullptr, cfg) << error;
    EXPECT_EQ("::1", cfg->metrics_host);
    EXPECT_EQ(1, cfg->metrics_port);
    cfg = load("[metrics]\nlisten = 0.0.0.0:65535\n", &error);
    ASSERT_NE(nullptr, cfg) << error;
    EXPECT_EQ(65535, cfg->metrics_port);
}

TEST(PlatformConfigMetrics, BadValuesAreRefusedNamingTheKey)
{
    for (const char *bad : {"9464", "127.0.0.1", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "127.0.0.1:0x10",
                            "127.0.0.1:94a", "localhost:9464", "::1:9464", "[::1]", "[127.0.0.1]:9464",
                            "256.0.0.1:9464", ":9464", "127.0.0.1:+80", "127.0.0.1: 80"}) {
        std::string error;
        auto cfg = load(std::string("[metrics]\nlisten = ") + bad + "\n", &error);
        EXPECT_EQ(nullptr, cfg) << bad;
        EXPECT_NE(std::string::npos, error.find(":2: [metrics] listen: expected ADDR:PORT")) << bad << ": " << error;
    }
    std::string error;
    EXPECT_EQ(nullptr, load("[metrics]\nport = 1\n", &error));
    EXPECT_NE(std::string::npos, error.find("[metrics] port: unknown key")) << error;
}

} // namespace
