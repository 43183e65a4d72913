#include "netlink/protocol.h"

#include <bit>

#include "netlink/sockets.h"
#include "support.h"

namespace {

static_assert(std::endian::native == std::endian::little);  // of the expected bytes

class ProtocolTest : public testing::Test {
  protected:
    const SocketPair socket_;
    void SetUp() override { (void)takeSent(); }
};

TEST_F(ProtocolTest, MirrorSettingsDifferInTheStateOnly) {
    struct {
        int state;
        uint8_t byte;
    } const rows[] = {{1, 1}, {0, 0}, {0x102, 2}};
    for (const auto &row : rows) {
        EXPECT_EQ(amSendMirrorConfig(socket_.near, row.state), 60);
        const Bytes expected = {60, 0, 0, 0, 21,       0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // netlink header
                                2,  0, 0, 0,                                             // family header
                                5,  0, 2, 0, row.byte, 0, 0, 0,                          //
                                6,  0, 3, 0, 16,       0, 0, 0,                          //
                                5,  0, 5, 0, 1,        0, 0, 0,                          //
                                6,  0, 6, 0, 30,       0, 0, 0,                          //
                                5,  0, 4, 0, 1,        0, 0, 0};
        EXPECT_EQ(takeSent(), std::vector<Bytes>{expected}) << row.state;
    }
}

}  // namespace
