/*
 * The buffers that one call to recvmmsg fills: for each frame room for the largest that the kernel hands over, with
 * headroom for tags in front. Made once per data plane thread.
 */
#ifndef KR_SOFT_RECEIVE_BUFFERS_H
#define KR_SOFT_RECEIVE_BUFFERS_H

#include <array>
#include <cstdint>
#include <memory>

#include <linux/if_packet.h>
#include <sys/socket.h>

#include "dataplane/frame.h"

namespace kr_soft {

constexpr uint32_t receive_batch_size = 32;
constexpr uint32_t super_frame_size_max = 65536 + 256; // a full IP packet of segments and its Ethernet header

class receive_buffers {
  public:
    receive_buffers();

    // Makes every message ready to be filled again.
    mmsghdr *prepare();
    // The frame in a message that recvmmsg filled, its stripped tag back in place. False when it was cut.
    bool frame_take(uint32_t index, frame *f);

  private:
    // Not a multiple of the page size: equal offsets in all buffers would compete for the same cache lines.
    static constexpr size_t stride = (frame_headroom + super_frame_size_max + 4095) / 4096 * 4096 + 5 * 64;

    struct alignas(cmsghdr) control_room {
        uint8_t bytes[CMSG_SPACE(sizeof(tpacket_auxdata))];
    };

    std::unique_ptr<uint8_t[]> room_;
    std::array<mmsghdr, receive_batch_size> messages_{};
    std::array<std::array<iovec, 2>, receive_batch_size> vectors_{};
    std::array<frame_offload, receive_batch_size> offloads_{};
    std::array<control_room, receive_batch_size> controls_{};
};

} // namespace kr_soft

#endif
