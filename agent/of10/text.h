/*
 * Records of the OpenFlow 1.0 codec as text, for logs and for people: the notation that flow tables are customarily
 * printed in ("priority=100,tcp,nw_dst=10.0.0.0/8,tp_dst=80 actions=mod_vlan_vid:5,output:2"). Text is never read back.
 */
#ifndef OF10_TEXT_H
#define OF10_TEXT_H

#include "of10/of10.h"

namespace of10 {

/* "OFPT_FLOW_MOD"; "type 99" for one that the protocol does not have. */
std::string message_name(uint8_t type);
std::string message_name(message_type type);

/* "OFPBAC_BAD_OUT_PORT"; "error 9/7" for a pair that the protocol does not have. */
std::string error_name(uint16_t type, uint16_t code);

/* "7", "FLOOD". */
std::string port_name(uint16_t port);

std::string mac_name(const mac_address &address);
std::string ipv4_name(uint32_t address);

/* The normal form of the match: the fields that count, separated by commas; empty when it matches all. */
std::string to_string(const flow_match &match);

std::string to_string(const action &one);
/* Separated by commas; "drop" when there is none. */
std::string to_string(const action_list &actions);

/* One line each. */
std::string to_string(const flow_mod &flow);
std::string to_string(const flow_stats &flow);
std::string to_string(const flow_removed &flow);

} // namespace of10

#endif
