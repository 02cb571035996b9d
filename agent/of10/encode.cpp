/*
 * From records to the bytes of messages, always appended to the caller's buffer: first the fixed part by its sheet
 * (wire.h), then what follows it, then the header with the length that came out. A message that turns out to be too
 * long is taken back whole.
 */
#include "of10/wire.h"

namespace of10 {
namespace {

using wire::sheet;
using wire::store_number;

/* Takes back what was appended since, unless told to keep it: also when memory runs out half-way. */
class append_guard {
  public:
    explicit append_guard(bytes &out) : out_(out), start_(out.size()) {}
    ~append_guard() {
        if (!kept_)
            out_.resize(start_);
    }
    append_guard(const append_guard &) = delete;
    append_guard &operator=(const append_guard &) = delete;

    size_t start() const {
        return start_;
    }
    size_t size() const {
        return out_.size() - start_;
    }
    void keep() {
        kept_ = true;
    }

  private:
    bytes &out_;
    size_t start_;
    bool kept_ = false;
};

void append(bytes &out, byte_view more) {
    out.insert(out.end(), more.begin(), more.end());
}

template <typename record> void write_head(bytes &out, const record &from) {
    const size_t start = out.size();
    out.resize(start + sheet<record>::size); // zeros: the padding
    wire::store(out.data() + start, from);
}

void write_header(uint8_t *header, size_t size, message_type type, uint32_t xid) {
    header[wire::offset_version] = protocol_version;
    header[wire::offset_type] = static_cast<uint8_t>(type);
    store_number(header + wire::offset_length, static_cast<uint16_t>(size));
    store_number(header + wire::offset_xid, xid);
}

void write_stats_head(uint8_t *message, stats_type type, uint16_t flags) {
    store_number(message + wire::offset_stats_type, static_cast<uint16_t>(type));
    store_number(message + wire::offset_stats_flags, flags);
}

/* ---- What a message is after its header: true when it can be said ------------------------------------------------ */

/* A length inside a message may be cut to its 16 bits here: a message that has such a part is too long itself. */

template <typename record> bool write(bytes &out, const record &from) {
    write_head(out, from);
    return true;
}

template <typename record> bool write_with_payload(bytes &out, const record &from, byte_view payload) {
    write_head(out, from);
    append(out, payload);
    return true;
}

bool write_actions(bytes &out, const action_list &actions) {
    for (const action &one : actions) {
        const size_t start = out.size();
        std::visit([&](const auto &kind) { write_head(out, kind); }, one);
        if (const auto *const vendor = std::get_if<action_vendor>(&one))
            append(out, vendor->body);
        const size_t size = out.size() - start;
        if (size % wire::action_align != 0)
            return false;
        store_number(out.data() + start, static_cast<uint16_t>(type_of(one)));
        store_number(out.data() + start + 2, static_cast<uint16_t>(size));
    }
    return true;
}

bool write(bytes &out, const hello &from) {
    return write_with_payload(out, from, from.elements);
}
bool write(bytes &out, const error &from) {
    return write_with_payload(out, from, from.data);
}
bool write(bytes &out, const echo_request &from) {
    return write_with_payload(out, from, from.data);
}
bool write(bytes &out, const echo_reply &from) {
    return write_with_payload(out, from, from.data);
}
bool write(bytes &out, const vendor &from) {
    return write_with_payload(out, from, from.body);
}
bool write(bytes &out, const vendor_stats &from) {
    return write_with_payload(out, from, from.body);
}
bool write(bytes &out, const packet_in &from) {
    return write_with_payload(out, static_cast<const packet_in_fields &>(from), from.data);
}

bool write(bytes &out, const features_reply &from) {
    write_head(out, from);
    for (const phy_port &one : from.ports)
        write_head(out, one);
    return true;
}

bool write(bytes &out, const packet_out &from) {
    const size_t start = out.size();
    write_head(out, from);
    if (!write_actions(out, from.actions))
        return false;
    const size_t length = out.size() - start - sheet<packet_out>::size;
    store_number(out.data() + start + wire::offset_actions_length, static_cast<uint16_t>(length));
    append(out, from.data);
    return true;
}

bool write(bytes &out, const flow_mod &from) {
    write_head(out, from);
    return write_actions(out, from.actions);
}

bool write(bytes &out, const stats_request &from) {
    const size_t start = out.size();
    const bool said = std::visit([&](const auto &kind) { return write(out, kind); }, from.body);
    write_stats_head(out.data() + start, type_of(from.body), from.flags);
    return said;
}

bool write_property(bytes &out, const queue_property &from) {
    if (from.type == queue_property_type::min_rate && from.body.size() != wire::min_rate_body_size)
        return false;
    const size_t start = out.size();
    write_with_payload(out, from, from.body);
    store_number(out.data() + start + wire::offset_property_length, static_cast<uint16_t>(out.size() - start));
    return true;
}

bool write(bytes &out, const queue_get_config_reply &from) {
    write_head(out, from);
    for (const packet_queue &one : from.queues) {
        const size_t start = out.size();
        write_head(out, one);
        for (const queue_property &property : one.properties)
            if (!write_property(out, property))
                return false;
        store_number(out.data() + start + wire::offset_queue_length, static_cast<uint16_t>(out.size() - start));
    }
    return true;
}

/* An entry of a statistics list. */
bool write_entry(bytes &out, const flow_stats &from) {
    const size_t start = out.size();
    write_head(out, from);
    if (!write_actions(out, from.actions))
        return false;
    store_number(out.data() + start + wire::offset_flow_stats_length, static_cast<uint16_t>(out.size() - start));
    return true;
}
template <typename record> bool write_entry(bytes &out, const record &from) {
    write_head(out, from);
    return true;
}

/* ---- Statistics replies -------------------------------------------------------------------------------------------
 */

template <typename record> consteval stats_type stats_type_of() {
    return wire::type_of_index<stats_reply_body, stats_type>(wire::index_of_alternative<stats_reply_body, record>());
}

template <typename record> bool write_stats_reply(bytes &out, uint32_t xid, uint16_t flags, const record &from) {
    const size_t start = out.size();
    if (!write(out, from) || out.size() - start > max_message_size)
        return false;
    write_stats_head(out.data() + start, stats_type_of<record>(), flags);
    write_header(out.data() + start, out.size() - start, message_type::stats_reply, xid);
    return true;
}

template <typename record>
bool write_stats_reply(bytes &out, uint32_t xid, uint16_t flags, const std::vector<record> &from) {
    stats_reply_writer writer(out, xid, stats_type_of<std::vector<record>>());
    for (const record &one : from)
        if (!writer.add(one))
            return false;
    writer.finish(flags);
    return true;
}

/* ---- One message: true when it can be said, else the caller takes back ------------------------------------------- */

template <typename record> bool write_message(bytes &out, uint32_t xid, const record &from) {
    const size_t start = out.size();
    if (!write(out, from) || out.size() - start > max_message_size)
        return false;
    constexpr auto type = static_cast<message_type>(wire::index_of_alternative<message_body, record>());
    write_header(out.data() + start, out.size() - start, type, xid);
    return true;
}

bool write_message(bytes &out, uint32_t xid, const hello &from) {
    const size_t start = out.size();
    const bool said = write_message<hello>(out, xid, from);
    out[start + wire::offset_version] = from.version;
    return said;
}

bool write_message(bytes &out, uint32_t xid, const stats_reply &from) {
    return std::visit([&](const auto &kind) { return write_stats_reply(out, xid, from.flags, kind); }, from.body);
}

} // namespace

stats_reply_writer::stats_reply_writer(bytes &out, uint32_t xid, stats_type type) : out_(out), xid_(xid), type_(type) {
    begin_part();
}

void stats_reply_writer::begin_part() {
    part_start_ = out_.size();
    out_.resize(part_start_ + wire::stats_head_size);
}

void stats_reply_writer::end_part(size_t end, uint16_t flags) {
    uint8_t *const part = out_.data() + part_start_;
    write_stats_head(part, type_, flags);
    write_header(part, end - part_start_, message_type::stats_reply, xid_);
}

/* The entry is written behind the part; when that makes the part too long, a new head is put between them. */
template <typename entry_type> bool stats_reply_writer::add_entry(stats_type kind, const entry_type &entry) {
    append_guard guard(out_);
    if (kind != type_ || !write_entry(out_, entry) || guard.size() > max_message_size - wire::stats_head_size)
        return false;
    if (out_.size() - part_start_ > max_message_size) {
        const auto entry_start = static_cast<bytes::difference_type>(guard.start());
        out_.insert(out_.begin() + entry_start, wire::stats_head_size, uint8_t{0});
        end_part(guard.start(), stats_reply_more);
        part_start_ = guard.start();
    }
    guard.keep();
    return true;
}

bool stats_reply_writer::add(const flow_stats &entry) {
    return add_entry(stats_type::flow, entry);
}
bool stats_reply_writer::add(const table_stats &entry) {
    return add_entry(stats_type::table, entry);
}
bool stats_reply_writer::add(const port_stats &entry) {
    return add_entry(stats_type::port, entry);
}
bool stats_reply_writer::add(const queue_stats &entry) {
    return add_entry(stats_type::queue, entry);
}

void stats_reply_writer::finish(uint16_t flags) {
    end_part(out_.size(), flags);
}

bool encode(bytes &out, uint32_t xid, const message_body &body) {
    append_guard guard(out);
    if (!std::visit([&](const auto &kind) { return write_message(out, xid, kind); }, body))
        return false;
    guard.keep();
    return true;
}

bool encode(bytes &out, const message &one) {
    return encode(out, one.xid, one.body);
}

bool encode_packet_in(bytes &out, uint32_t xid, const packet_in_fields &fields, byte_view frame) {
    if (frame.size() > max_message_size - sheet<packet_in_fields>::size)
        return false;
    append_guard guard(out);
    write_with_payload(out, fields, frame);
    write_header(out.data() + guard.start(), guard.size(), message_type::packet_in, xid);
    guard.keep();
    return true;
}

void encode_error(bytes &out, byte_view request, error_type type, uint16_t code) {
    const byte_view quote = request.first(std::min(request.size(), error_quote_size));
    const uint32_t xid =
        request.size() < header_size ? 0 : wire::load_number<uint32_t>(request.data() + wire::offset_xid);
    append_guard guard(out);
    write_message(out, xid, of10::error{static_cast<uint16_t>(type), code, bytes(quote.begin(), quote.end())});
    guard.keep();
}

void encode_error_text(bytes &out, uint32_t xid, error_type type, uint16_t code, std::string_view text) {
    text = text.substr(0, max_message_size - sheet<of10::error>::size);
    append_guard guard(out);
    write_message(out, xid, of10::error{static_cast<uint16_t>(type), code, bytes(text.begin(), text.end())});
    guard.keep();
}

} // namespace of10
