/*
 * The bodies of the OpenFlow 1.0 codec: reading, writing, and the small questions about records.
 * Layouts stand in wire.h as offsets; nothing here casts a buffer to a struct.
 */
#include "of10/of10.h"

#include <algorithm>

namespace of10 {

size_t message_size(byte_view buffered) noexcept {
    if (buffered.size() < header_size)
        return 0;
    const size_t length = static_cast<size_t>(buffered[2] << 8 | buffered[3]);
    return std::max(length, header_size);
}

} // namespace of10
