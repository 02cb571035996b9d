/*
 * Steps as C++ source: only what differs from a default step is written.
 */
#include "tests/model/step.h"

#include <algorithm>
#include <sstream>

namespace kr_model {
namespace {

// The members of an initialiser, in the order in which they are declared.
class initialiser {
  public:
    template <typename Number> initialiser &add(const char *name, Number value, Number otherwise = {}) {
        if (value != otherwise) {
            member(name) << +value;
        }
        return *this;
    }
    initialiser &add_text(const char *name, const std::string &text) {
        if (!text.empty()) {
            member(name) << text;
        }
        return *this;
    }
    initialiser &add_bytes(const char *name, const uint8_t *data, size_t size) {
        if (std::any_of(data, data + size, [](uint8_t byte) { return byte != 0; })) {
            std::ostream &out = member(name) << '{';
            for (size_t i = 0; i < size; i++) {
                out << (i > 0 ? ", " : "") << +data[i];
            }
            out << '}';
        }
        return *this;
    }
    std::string text() const {
        return "{" + text_.str() + "}";
    }

  private:
    std::ostream &member(const char *name) {
        text_ << (text_.tellp() > 0 ? ", " : "") << '.' << name << " = ";
        return text_;
    }
    std::ostringstream text_;
};

std::string fault_text(const fault &planned) {
    if (planned.function.empty()) {
        return {};
    }
    return initialiser()
        .add_text("function", '"' + planned.function + '"')
        .add("nth", planned.nth)
        .add("code", planned.code)
        .add_text("persistent", planned.persistent ? "true" : "")
        .text();
}

std::string port_text(const conn_port_record &port) {
    const std::string text =
        initialiser()
            .add("log_port", port.log_port)
            .add("ifindex", port.ifindex)
            .add("requested_of_port", port.requested_of_port)
            .add_text("interface_name",
                      port.interface_name[0] != '\0' ? '"' + std::string(port.interface_name) + '"' : "")
            .add_bytes("mac_address", port.mac_address, sizeof port.mac_address)
            .text();
    return text == "{}" ? "" : text;
}

std::string frame_text(const frame_description &frame) {
    if (frame == frame_description{}) {
        return {};
    }
    return initialiser()
        .add("log_port", frame.log_port)
        .add_text("kind", frame.kind == frame_kind::udp ? "" : "frame_kind(" + std::to_string(int(frame.kind)) + ")")
        .add("src", frame.src)
        .add("dst", frame.dst)
        .add("ip_src", frame.ip_src)
        .add("ip_dst", frame.ip_dst)
        .add("tos", frame.tos)
        .add("tp_src", frame.tp_src)
        .add("tp_dst", frame.tp_dst)
        .add("tci", frame.tci, frame_description::no_tag)
        .add("padding", frame.padding)
        .text();
}

std::string flow_text(const flow_record &flow) {
    initialiser text;
#define NUMBER(field) text.add(#field, flow.field)
#define BYTES(field) text.add_bytes(#field, flow.field, sizeof flow.field)
    NUMBER(flow_id);
    NUMBER(priority);
    NUMBER(in_port);
    NUMBER(in_port_mask);
    BYTES(eth_src);
    BYTES(eth_src_mask);
    BYTES(eth_dst);
    BYTES(eth_dst_mask);
    NUMBER(vlan_tagged);
    NUMBER(vlan_tagged_mask);
    NUMBER(vlan_id);
    NUMBER(vlan_id_mask);
    NUMBER(vlan_pcp);
    NUMBER(vlan_pcp_mask);
    NUMBER(eth_type);
    NUMBER(eth_type_mask);
    NUMBER(ip_tos);
    NUMBER(ip_tos_mask);
    NUMBER(ip_proto);
    NUMBER(ip_proto_mask);
    NUMBER(ipv4_src);
    NUMBER(ipv4_src_mask);
    NUMBER(ipv4_dst);
    NUMBER(ipv4_dst_mask);
    NUMBER(tp_src);
    NUMBER(tp_src_mask);
    NUMBER(tp_dst);
    NUMBER(tp_dst_mask);
    NUMBER(action);
    NUMBER(out_port);
    NUMBER(mc_group_id);
    NUMBER(vlan_action);
    NUMBER(vlan_action_vid);
    NUMBER(vlan_action_pcp);
#undef NUMBER
#undef BYTES
    return text.text();
}

template <typename Item, typename Text> std::string list_text(const std::vector<Item> &items, Text text_of) {
    std::string text;
    for (const Item &item : items) {
        text += (text.empty() ? "" : ", ") + text_of(item);
    }
    return items.empty() ? "" : "{" + text + "}";
}

} // namespace

const char *op_name(op what) {
    constexpr const char *names[] = {
#define X(name) #name,
        KR_MODEL_OPERATIONS(X)
#undef X
    };
    return names[static_cast<size_t>(what)];
}

std::string to_source(const step &s) {
    return initialiser()
        .add_text("what", std::string("op::") + op_name(s.what))
        .add("target", s.target)
        .add("command", s.command)
        .add("value", s.value)
        .add("count", s.count)
        .add("answer", s.answer)
        .add_text("port", port_text(s.port))
        .add_text("frame", frame_text(s.frame))
        .add_text("flows", list_text(s.flows, flow_text))
        .add_text("ids", list_text(s.ids, [](uint64_t id) { return std::to_string(id); }))
        .add_text("fault", fault_text(s.fault))
        .text();
}

std::string to_test(const std::vector<step> &steps, const std::string &name) {
    std::string text = "TEST(model_regression, " + name + ") {\n    expect_agreement({\n";
    for (const step &s : steps) {
        text += "        " + to_source(s) + ",\n";
    }
    return text + "    });\n}\n";
}

} // namespace kr_model
