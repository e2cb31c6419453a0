// Product file: values read, malformed values and a missing file keep defaults.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>
#include <unistd.h>

#include "platform/errcode.h"
#include "platform/product.h"

namespace {

int load(const std::string &text)
{
    std::string path = "/tmp/product_test_" + std::to_string(getpid()) + ".ini";
    std::ofstream(path) << text;
    int rc = st_product_load(path.c_str());
    unlink(path.c_str());
    return rc;
}

TEST(Product, ReadsEveryKey)
{
    EXPECT_EQ(load("[product]\n"
                   "sys_mac = 00:11:22:aa:bb:cc\n"
                   "enterprise = 12345\n"
                   "slot = 3\n"
                   "hostname = olt-lab\n"),
              0);
    const std::uint8_t expect[6] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
    EXPECT_EQ(0, std::memcmp(st_product_sys_mac_get(), expect, 6));
    EXPECT_EQ(st_product_enterprise_id_get(), 12345u);
    EXPECT_EQ(st_product_slot_id_get(), 3);
    EXPECT_STREQ(st_product_default_hostname(), "olt-lab");
    EXPECT_EQ(load("[product]\nsys_mac = 0011-2233-44ff\n"), 0);
    std::uint8_t mac[6];
    st_product_mac_get(mac);
    EXPECT_EQ(mac[5], 0xff);
}

TEST(Product, EveryLoadStartsFromTheDefaultsMalformedValuesAndAMissingFileKeepThem)
{
    load("[product]\nslot = 4\nhostname = a\nenterprise = 7\n");
    EXPECT_EQ(load("[product]\n"
                   "sys_mac = 00:11:22:33:44\n"  // five bytes
                   "enterprise = 12x\n"
                   "slot = 32\n"                 // beyond the slot range
                   "hostname = two words\n"
                   "[other]\nslot = 5\n"),
              TAVO_PARAM);
    EXPECT_EQ(st_product_slot_id_get(), 1);
    EXPECT_STREQ(st_product_default_hostname(), "OLT");
    EXPECT_EQ(st_product_enterprise_id_get(), 99999u);
    const std::uint8_t dflt[6] = {0x02, 0, 0, 0, 0, 0x01};
    EXPECT_EQ(0, std::memcmp(st_product_sys_mac_get(), dflt, 6));

    load("[product]\nslot = 4\n");
    EXPECT_EQ(st_product_load("/nonexistent/product.ini"), TAVO_NOT_FOUND);
    EXPECT_EQ(st_product_slot_id_get(), 1);
    std::uint32_t up = st_product_get_system_uptime();
    usleep(30000);
    EXPECT_GT(st_product_get_system_uptime(), up);
}

} // namespace
