/*
 * A packet as people write it, turned into its OpenFlow fields: names and values as ovs-ofctl takes them in a flow
 * ("in_port=32769,tcp,nw_src=10.0.0.1,tp_dst=80"), and the bytes of a frame in hexadecimal ("frame=02000000..."). Pure.
 */
#ifndef KR_AGENT_PACKET_TEXT_H
#define KR_AGENT_PACKET_TEXT_H

#include <string>
#include <variant>

#include "of10/of10.h"

namespace agent {

/*
 * The fields, as frame_match() makes them from a frame, or what is wrong with the text. in_port has to be given. What
 * is not given is as in a frame without a tag whose bytes are zero; a protocol implies the type below it. With a frame
 * its fields are the frame's, and only in_port may stand beside it.
 */
std::variant<of10::flow_match, std::string> packet_parse(const std::string &text);

} // namespace agent

#endif
