// The daemon's forwarding-plane channel connected to a scripted forwarding
// plane, for unit tests of the modules that send requests and frames.
#pragma once

#include <string>

#include "tests/support/fake_fp.h"

struct thread_master;

class hal_session {
public:
    ~hal_session() { stop(); }
    // Starts the scripted plane on a path unique to this process and `tag`,
    // answers requests with 0 when auto_reply, and waits for the registration.
    bool start(const std::string &tag, bool auto_reply = true);
    void stop();
    fake_fp fp;

private:
    thread_master *master_ = nullptr;
    std::string path_;
};
