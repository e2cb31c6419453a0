#include "tests/support/hal_session.h"

#include <unistd.h>

#include "lib/thread.h"
#include "platform/hal.h"

bool hal_session::start(const std::string &tag, bool auto_reply)
{
    path_ = "/tmp/hal_session_" + std::to_string(getpid()) + "_" + tag;
    if (!fp.start(path_)) return false;
    fp.set_auto_reply(auto_reply);
    master_ = thread_master_create("hal-session");
    hal_set_path(path_.c_str());
    if (hal_init(HAL_DHCP, master_, [](int, std::uint8_t *, std::uint32_t) -> std::uint32_t { return 0; }) != 0)
        return false;
    return fp.wait_registered(2000);
}

void hal_session::stop()
{
    if (!master_) return;
    hal_close();
    thread_master_free(master_);
    master_ = nullptr;
    fp.stop();
}
