#include "socket_io.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "harness.h"
#include "wire.h"

using namespace talvex::wire;
using Clock = std::chrono::steady_clock;

TEST(SocketIo, AddressesFitOrAreRefused) {
    EXPECT_FALSE(socket_address(""));
    EXPECT_FALSE(socket_address(std::string(108, 'x')));
    auto longest = socket_address(std::string(107, 'x'));
    ASSERT_TRUE(longest);
    EXPECT_EQ(longest->sun_family, AF_UNIX);
    EXPECT_EQ(std::string(longest->sun_path), std::string(107, 'x'));

    talvex::test::TempDir dir;
    const std::string path = dir.path + "/s.sock";
    EXPECT_FALSE(connect_to(path));   // nobody listens yet
    OwnedFd listener = listen_at(path, 1);
    ASSERT_TRUE(listener);
    EXPECT_FALSE(listen_at(path, 1));   // the path is taken
    EXPECT_TRUE(connect_to(path));
    errno = 0;
    EXPECT_FALSE(listen_at(dir.path + "/" + std::string(120, 'y'), 1));
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(SocketIo, FramesArriveWholeOrSayWhyNot) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    OwnedFd a(sv[0]), b(sv[1]);
    const auto soon = [] { return Clock::now() + std::chrono::milliseconds(200); };
    std::vector<uint8_t> message;

    // Sent in pieces, read as one frame, with the descriptor that came along.
    const std::vector<uint8_t> frame{9, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    iovec iov{const_cast<uint8_t *>(frame.data()), 2};
    DescriptorControl control;
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    attach_descriptor(msg, control, pipe_fds[1]);
    ASSERT_EQ(sendmsg(a.get(), &msg, 0), 2);
    close(pipe_fds[1]);
    ASSERT_TRUE(send_before(a.get(), std::span(frame).subspan(2), soon()));
    OwnedFd came;
    ASSERT_EQ(read_frame_before(b.get(), soon(), 64, message, &came), FrameRead::Ok);
    EXPECT_EQ(message, std::vector<uint8_t>(frame.begin() + 4, frame.end()));
    ASSERT_TRUE(came);
    EXPECT_EQ(write(came.get(), "x", 1), 1);   // the pipe's write end, still open
    close(pipe_fds[0]);

    // Half a frame, then nothing: the deadline ends the wait.
    ASSERT_TRUE(send_before(a.get(), std::span(frame).first(6), soon()));
    EXPECT_EQ(read_frame_before(b.get(), soon(), 64, message), FrameRead::TimedOut);

    // Lengths below a header or above the limit.
    int fresh[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fresh), 0);
    OwnedFd c(fresh[0]), d(fresh[1]);
    const uint8_t short_frame[] = {7, 0, 0, 0}, long_frame[] = {65, 0, 0, 0};
    ASSERT_TRUE(send_before(c.get(), short_frame, soon()));
    EXPECT_EQ(read_frame_before(d.get(), soon(), 64, message), FrameRead::BadLength);
    ASSERT_TRUE(send_before(c.get(), long_frame, soon()));
    EXPECT_FALSE(read_frame_before(d.get(), soon(), 64));

    // The other end gone.
    c.reset();
    EXPECT_EQ(read_frame_before(d.get(), soon(), 64, message), FrameRead::Closed);
    EXPECT_FALSE(send_before(d.get(), frame, soon()));
}
