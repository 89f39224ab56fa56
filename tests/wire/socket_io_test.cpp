#include "socket_io.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "harness.h"

using namespace talvex::wire;

TEST(SocketIo, AddressesFitOrAreRefused) {
    EXPECT_FALSE(socket_address(""));
    EXPECT_FALSE(socket_address(std::string(108, 'x')));
    auto longest = socket_address(std::string(107, 'x'));
    ASSERT_TRUE(longest);
    EXPECT_EQ(std::string(longest->sun_path), std::string(107, 'x'));

    talvex::test::TempDir dir;
    const std::string path = dir.path + "/s.sock";
    OwnedFd listener = listen_at(path, 1);
    ASSERT_TRUE(listener);
    EXPECT_FALSE(listen_at(path, 1));   // the path is taken
    errno = 0;
    EXPECT_FALSE(listen_at(dir.path + "/" + std::string(120, 'y'), 1));
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST(SocketIo, FramesArriveWholeOrSayWhyNot) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    OwnedFd a(sv[0]), b(sv[1]);
    const auto soon = [] { return std::chrono::steady_clock::now() + std::chrono::milliseconds(200); };
    std::vector<uint8_t> message;
    // Half a frame, then nothing: the deadline ends the wait, and not before
    // it (half a millisecond past a whole one shows a wait cut short).
    const std::vector<uint8_t> frame{9, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    ASSERT_TRUE(send_before(a.get(), std::span(frame).first(6), soon()));
    const auto deadline = soon() + std::chrono::microseconds(500);
    EXPECT_EQ(read_frame_before(b.get(), deadline, 64, message), FrameRead::TimedOut);
    EXPECT_GE(std::chrono::steady_clock::now(), deadline) << "the wait ended before its deadline";
    // Lengths below a header or above the limit.
    const uint8_t short_frame[] = {7, 0, 0, 0}, long_frame[] = {65, 0, 0, 0};
    OwnedFd c, d;
    for (auto bad : {std::span(short_frame), std::span(long_frame)}) {
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
        c = OwnedFd(sv[0]), d = OwnedFd(sv[1]);
        ASSERT_TRUE(send_before(c.get(), bad, soon()));
        EXPECT_EQ(read_frame_before(d.get(), soon(), 64, message), FrameRead::BadLength);
    }
    // The other end gone.
    c.reset();
    EXPECT_EQ(read_frame_before(d.get(), soon(), 64, message), FrameRead::Closed);
    EXPECT_FALSE(send_before(d.get(), frame, soon()));
}

// A descriptor sent along comes out where one is wanted, and where none is
// the kernel closes it: nothing keeps the pipe's writing end open after.
TEST(SocketIo, DescriptorsComeOutOnlyWhereWanted) {
    int sv[2], pipe_fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    ASSERT_EQ(pipe2(pipe_fds, O_CLOEXEC | O_NONBLOCK), 0);
    OwnedFd a(sv[0]), b(sv[1]), pipe_read(pipe_fds[0]), pipe_write(pipe_fds[1]);
    const auto soon = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    const uint8_t bytes[] = {'o', 'k'};
    uint8_t got[8];
    std::vector<int> came;
    ASSERT_TRUE(send_with_descriptor_before(a.get(), bytes, pipe_write.get(), soon));
    ASSERT_EQ(receive_some(b.get(), got, &came, true), 2);
    ASSERT_EQ(came.size(), 1u);
    OwnedFd wanted(came[0]);
    EXPECT_NE(wanted.get(), pipe_write.get());
    ASSERT_TRUE(send_with_descriptor_before(a.get(), bytes, pipe_write.get(), soon));
    came.clear();
    ASSERT_EQ(receive_some(b.get(), got, nullptr, true), 2);
    EXPECT_EQ(std::string(got, got + 2), "ok");
    wanted.reset();
    pipe_write.reset();
    char c;
    EXPECT_EQ(read(pipe_read.get(), &c, 1), 0) << "a writing end is still open somewhere";
}
