#include "command_table.h"
#include "handlers.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

namespace {

struct row {
    const char* command;
    int (*handler)(ks_io* io, int fd);
};

void expect_rows(std::span<const command_entry> table, std::span<const row> expected) {
    ASSERT_EQ(table.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_STREQ(table[i].command, expected[i].command) << i;
        EXPECT_EQ(table[i].handler, expected[i].handler) << expected[i].command;
    }
}

TEST(CommandTableTest, TheMainServicesRowsStandInTheirOrder) {
    const row expected[] = {
        {"test", hos_test_handler},
        {"exec_cli", hos_exec_cli_handler},
        {"get_tvlounge_status", hos_get_cfg_tvLounge_handler},
        {"system_call_vexpro_disable", hos_system_call_vexpro_disable_handler},
        {"get_vpd_productnamed", hos_get_vpd_productnamed_handler},
        {"get_vpd_eepkey", hos_get_vpd_eepkey_handler},
        {"get_vpd_channel", hos_get_vpd_channel_handler},
        {"is_generic_model", hos_is_generic_model_handler},
        {"get_platform_display_name", hos_get_platform_display_name_handler},
        {"system_call_share_folder_renew", hos_system_call_share_folder_renew_handler},
        {"is_vxb_model", hos_system_is_VXB_model_handler},
    };
    expect_rows(main_commands(), expected);
}

TEST(CommandTableTest, TheMailServicesRowsStandInTheirOrder) {
    const row expected[] = {{"test", hos_test_sendmail_srv_handler}};
    expect_rows(mail_commands(), expected);
}

} // namespace
