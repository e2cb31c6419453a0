// Scripted forwarding plane for component tests: listens on a SEQPACKET path,
// accepts the module registration, sends packet messages, records what the
// module sends and optionally answers its requests. Runs its own thread; every
// method is safe to call from the test thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/hal_msg.h"

struct fake_fp_msg {
    hal_msg_hdr_t hdr;
    std::vector<std::uint8_t> bytes;  // the whole message, header included
    bytes_view payload() const { return bytes_view(bytes).subspan(HAL_MSG_HDR_LEN); }
};

class fake_fp {
public:
    // Returns true and fills `reply` (a whole message) to answer a request.
    using responder = std::function<bool(const fake_fp_msg &req, std::vector<std::uint8_t> &reply)>;

    fake_fp() = default;
    ~fake_fp();
    fake_fp(const fake_fp &) = delete;
    fake_fp &operator=(const fake_fp &) = delete;

    // Listens on path (a stale socket file is removed). Call again after stop()
    // to play a restarted forwarding plane.
    bool start(const std::string &path);
    // Closes the listener and the connection and removes the path.
    void stop();
    bool running() const;

    // A module connected and registered since the last start().
    bool wait_registered(int timeout_ms);
    bool connected() const;
    std::uint32_t module() const;  // module number of the last registration
    int registrations() const;     // registrations seen over the object's life
    void set_register_result(std::uint32_t result);  // 0 accepts (default)

    // Sends a packet message (type 1, 1680 bytes, seq 0) to the module.
    bool send_pkt(const hal_msg_pkt_t &p);
    // Convenience: a frame received on ifindex/vid, nothing else set.
    bool send_pkt(std::uint32_t ifindex, std::uint16_t vid, bytes_view frame);
    // These exact bytes as one datagram (for malformed messages).
    bool send_raw(bytes_view msg);

    // Messages from the module other than the registration, in arrival order.
    std::vector<fake_fp_msg> received() const;
    bool wait_received(std::size_t n, int timeout_ms);
    void clear_received();

    // Requests get no answer unless a responder is set or auto-reply is on.
    void set_responder(responder r);
    // Answer every non-packet message with its own type and seq and a u32 0.
    void set_auto_reply(bool on);

private:
    void run(int listen_fd, int wake_fd);
    void handle(int fd);
    bool send_locked(const std::uint8_t *data, std::size_t len);

    mutable std::mutex mu_;
    std::condition_variable cv_;
    std::thread thread_;
    std::string path_;
    int listen_fd_ = -1;
    int conn_fd_ = -1;
    int wake_[2] = {-1, -1};
    bool registered_ = false;
    std::uint32_t module_ = 0;
    int registrations_ = 0;
    std::uint32_t register_result_ = 0;
    bool auto_reply_ = false;
    responder responder_;
    std::vector<fake_fp_msg> received_;
};
