// The zero-byte framing of the POSIX channel over a socket pair: a send that gives up on a peer that takes
// nothing.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <string>
#include <thread>

#include "support/FramedSocket.h"

namespace {

using velmar::CFramedSocket;

struct CPair {
    CPair() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        near = std::make_unique<CFramedSocket>(fds[0]);
        far = std::make_unique<CFramedSocket>(fds[1]);
    }
    std::unique_ptr<CFramedSocket> near;
    std::unique_ptr<CFramedSocket> far;
};

TEST(FramedSocket, ASendGivesUpOnAPeerThatTakesNothing) {
    CPair pair;
    // Far more than the socket buffers hold, to a peer that never reads.
    errno = 0;
    EXPECT_FALSE(pair.near->Send(std::string(16 * 1024 * 1024, 'x'), 200));
    EXPECT_EQ(errno, ETIMEDOUT);
    // A peer that reads gets it all.
    CPair reading;
    std::string big(4 * 1024 * 1024, 'y');
    std::thread reader([&] {
        std::string got;
        EXPECT_EQ(reading.far->Receive(got, big.size() + 1, 10000), CFramedSocket::Received::Message);
        EXPECT_EQ(got.size(), big.size());
    });
    EXPECT_TRUE(reading.near->Send(big, 5000));
    reader.join();
}

}  // namespace
