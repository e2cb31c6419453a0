// Product file: values read, malformed values and a missing file keep defaults.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

#include "platform/errcode.h"
#include "platform/product.h"

namespace {

std::string write_ini(const std::string &text)
{
    std::string path = "/tmp/product_test_" + std::to_string(getpid()) + "_" +
                       ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".ini";
    FILE *f = std::fopen(path.c_str(), "w");
    std::fputs(text.c_str(), f);
    std::fclose(f);
    return path;
}

TEST(Product, ReadsEveryKey)
{
    std::string path = write_ini("[product]\n"
                                 "sys_mac = 00:11:22:aa:bb:cc\n"
                                 "enterprise = 12345\n"
                                 "slot = 3\n"
                                 "hostname = olt-lab\n");
    EXPECT_EQ(st_product_load(path.c_str()), 0);
    const std::uint8_t expect[6] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
    EXPECT_EQ(0, std::memcmp(st_product_sys_mac_get(), expect, 6));
    EXPECT_EQ(st_product_enterprise_id_get(), 12345u);
    EXPECT_EQ(st_product_slot_id_get(), 3);
    EXPECT_STREQ(st_product_default_hostname(), "olt-lab");
    unlink(path.c_str());
}

TEST(Product, MalformedValuesKeepTheirDefaultsOthersApply)
{
    std::string good = write_ini("[product]\nslot = 4\nhostname = a\n");
    st_product_load(good.c_str());
    unlink(good.c_str());
    EXPECT_EQ(st_product_slot_id_get(), 4);

    std::string path = write_ini("[product]\n"
                                 "sys_mac = 00:11:22:33:44\n"   // five bytes
                                 "enterprise = 12x\n"
                                 "slot = 32\n"                  // beyond the slot range
                                 "hostname = two words\n"
                                 "[other]\nslot = 5\n");
    EXPECT_EQ(st_product_load(path.c_str()), TAVO_PARAM);
    // Every load starts from the defaults, not from the previous file.
    EXPECT_EQ(st_product_slot_id_get(), 1);
    EXPECT_STREQ(st_product_default_hostname(), "OLT");
    EXPECT_EQ(st_product_enterprise_id_get(), 99999u);
    const std::uint8_t dflt[6] = {0x02, 0, 0, 0, 0, 0x01};
    EXPECT_EQ(0, std::memcmp(st_product_sys_mac_get(), dflt, 6));
    unlink(path.c_str());

    std::string dashed = write_ini("[product]\nsys_mac = 0011-2233-44ff\n");
    EXPECT_EQ(st_product_load(dashed.c_str()), 0);
    std::uint8_t mac[6];
    st_product_mac_get(mac);
    EXPECT_EQ(mac[5], 0xff);
    unlink(dashed.c_str());
}

TEST(Product, MissingFileKeepsDefaults)
{
    EXPECT_EQ(st_product_load("/nonexistent/product.ini"), TAVO_NOT_FOUND);
    EXPECT_EQ(st_product_slot_id_get(), 1);
    std::uint32_t a = st_product_get_system_uptime();
    usleep(30000);
    EXPECT_GT(st_product_get_system_uptime(), a);
}

} // namespace
