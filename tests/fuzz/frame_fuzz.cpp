/*
 * Frames of any kind in the data plane: reading the key, VLAN edits, and turning a frame with offloads into those of a
 * wire. The frame lies in memory of exactly its size, so that the address sanitizer sees every byte read too many.
 */
#include <memory>

#include "dataplane/frame.h"
#include "dataplane/frame_parse.h"
#include "tests/fuzz/fuzz_input.h"

using namespace kr_soft;
using kr_fuzz::require;

namespace {

using bytes = std::vector<uint8_t>;

// A copy with room in front, and nothing behind.
struct room {
    explicit room(const bytes &data) : memory(new uint8_t[frame_headroom + data.size()]) {
        memset(memory.get(), 0, frame_headroom);
        memcpy(memory.get() + frame_headroom, data.data(), data.size());
        f.data = memory.get() + frame_headroom;
        f.size = static_cast<uint32_t>(data.size());
        f.headroom = frame_headroom;
    }
    bytes content() const {
        return {f.data, f.data + f.size};
    }
    std::unique_ptr<uint8_t[]> memory;
    frame f{};
};

kr_acl_key key_of(const frame &f) {
    kr_acl_key key;
    memset(static_cast<void *>(&key), 0xA5, sizeof key);
    frame_key_read(f.data, f.size, 7, &key);
    return key;
}

void check_parsing(const bytes &data) {
    const room whole(data);
    const frame_layout layout = frame_layout_read(whole.f.data, whole.f.size);
    require(layout.l3_offset >= eth_header_size && layout.l3_offset <= data.size(), "the payload begins in the frame");
    const kr_acl_key key = key_of(whole.f);
    require(key.in_log_port == 7 && key.vlan_id <= 0xfff && key.vlan_pcp <= 7, "fields keep to their widths");
    require((key.vlan_tagged != 0) == (layout.vlan_tag_count > 0), "tagged as the layout says");
    require(layout.vlan_tag_count > 0 || (key.vlan_id == 0 && key.vlan_pcp == 0), "no tag, no fields of it");
    (void)frame_control_trap_id(whole.f.data, whole.f.size);
}

// A tag that is pushed can be read, and popped again without a trace.
void check_edits(const bytes &data, uint16_t vlan_id, uint8_t pcp, uint32_t edit) {
    const kr_acl_key before = key_of(room(data).f);
    room pushed(data);
    frame_vlan_edit(pushed.f, KR_ACL_VLAN_EDIT_PUSH_VID_PCP, vlan_id, pcp);
    require(pushed.f.size == data.size() + vlan_tag_size, "a tag has four bytes");
    kr_acl_key tagged = key_of(pushed.f);
    require(tagged.vlan_tagged == 2 && tagged.vlan_id == (vlan_id & 0xfff) && tagged.vlan_pcp == (pcp & 7),
            "the pushed tag is the outer one");
    tagged.vlan_tagged = before.vlan_tagged;
    tagged.vlan_id = before.vlan_id;
    tagged.vlan_pcp = before.vlan_pcp;
    require(memcmp(&tagged, &before, sizeof before) == 0, "a tag changes nothing behind it");
    frame_vlan_edit(pushed.f, KR_ACL_VLAN_EDIT_POP, 0, 0);
    require(pushed.content() == data, "push and pop leave the frame as it was");

    room edited(data);
    frame_vlan_edit(edited.f, edit, vlan_id, pcp);
    (void)key_of(edited.f);
}

void check_offload(const bytes &data, const frame_offload &offload) {
    room whole(data);
    whole.f.offload = offload;
    if (!frame_offload_check(whole.f)) {
        return;
    }
    require(whole.f.segment_count >= 1, "at least one frame leaves");
    uint64_t wire_bytes = 0;
    uint32_t count = 0;
    frame_wire_frames(whole.f, [&](const uint8_t *segment, uint32_t size) {
        require(size <= wire_frame_size_max, "a segment fits a wire");
        wire_bytes += size;
        count++;
        kr_acl_key key;
        frame_key_read(segment, size, 7, &key);
    });
    require(count == whole.f.segment_count, "as many frames as segments");
    require(wire_bytes == frame_wire_bytes(whole.f), "the bytes of the wire are counted right");
    frame_vlan_edit(whole.f, KR_ACL_VLAN_EDIT_PUSH_VID, 5, 0);
    frame_wire_frames(whole.f, [](const uint8_t *segment, uint32_t size) {
        kr_acl_key key;
        frame_key_read(segment, size, 7, &key);
    });
}

} // namespace

// Offloads and edit first, then the frame; every length from the smallest one on is a frame.
KR_FUZZ_TARGET(const uint8_t *data, size_t size) {
    kr_fuzz::input from(data, size);
    const auto offload = from.take<frame_offload>();
    const auto vlan_id = from.take<uint16_t>();
    const auto pcp = from.take<uint8_t>();
    const uint32_t edit = from.take<uint8_t>();
    const bytes content = from.rest();
    if (content.size() < eth_header_size || content.size() > 65535) {
        return 0;
    }
    check_parsing(content);
    check_parsing(bytes(content.begin(), content.begin() + static_cast<ptrdiff_t>(std::min<size_t>(
                                                               eth_header_size + edit, content.size()))));
    if (content.size() <= KR_SOFT_MAX_FRAME) {
        check_edits(content, vlan_id, pcp, edit);
    }
    check_offload(content, offload);
    return 0;
}
