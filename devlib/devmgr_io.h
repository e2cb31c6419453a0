// Socket side of the device-manager protocol, for both ends: stream
// reassembly, sends and receives with a deadline, loopback TCP helpers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "devlib/devmgr_proto.h"

// Reassembles messages from a stream; holds at most one largest message.
class devmgr_rxbuf {
public:
    devmgr_rxbuf();
    // Reads what the descriptor has without blocking: >0 bytes read, 0 nothing
    // waiting, -1 end of stream or error.
    int fill(int fd);
    // Takes the next whole message: 1 decoded, 2 unknown type (skipped; m.type
    // says which), 0 need more bytes, -1 the stream is broken (oversized
    // length, or a payload shorter than its type's record).
    int next(devmgr_msg_t &m);
    std::size_t buffered() const { return end_ - start_; }
    void clear() { start_ = end_ = 0; }

private:
    std::vector<std::uint8_t> buf_;
    std::size_t start_ = 0, end_ = 0;
};

// Blocking helpers bounded by timeout_ms.
bool devmgr_send_bytes(int fd, const std::uint8_t *data, std::size_t len, int timeout_ms);
bool devmgr_send(int fd, const devmgr_msg_t &m, int timeout_ms);
// Next message from fd: 1 got one (unknown types are skipped), 0 time-out, -1 closed or broken.
int devmgr_recv(int fd, devmgr_rxbuf &rx, devmgr_msg_t &m, int timeout_ms);

// TCP to addr:port (host-order address); descriptor or -1.
int devmgr_tcp_connect(std::uint32_t addr, std::uint16_t port, int timeout_ms);
// Listening TCP socket on addr:port (0 = any free port); the bound port goes
// to *bound. Descriptor or -1.
int devmgr_tcp_listen(std::uint32_t addr, std::uint16_t port, std::uint16_t *bound);
