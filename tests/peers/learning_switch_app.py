"""A learning switch for OpenFlow 1.0, as an application for os-ken: it knows nothing of the switch that it meets.

A frame to an address that has been seen gets a flow and follows it; any other is flooded. Each packet-in and each
error of the switch is a line of the log, which the test counts.
"""
from os_ken.base import app_manager
from os_ken.controller import ofp_event
from os_ken.controller.handler import CONFIG_DISPATCHER, MAIN_DISPATCHER, set_ev_cls
from os_ken.lib.packet import ethernet, packet
from os_ken.ofproto import ofproto_v1_0


class LearningSwitch(app_manager.OSKenApp):
    OFP_VERSIONS = [ofproto_v1_0.OFP_VERSION]

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self.port_of = {}  # datapath, address -> port

    @set_ev_cls(ofp_event.EventOFPSwitchFeatures, CONFIG_DISPATCHER)
    def switch_features(self, event):
        self.logger.info("switch %016x with %d ports", event.msg.datapath_id, len(event.msg.ports))

    @set_ev_cls(ofp_event.EventOFPPacketIn, MAIN_DISPATCHER)
    def packet_in(self, event):
        message = event.msg
        datapath, ofproto, parser = message.datapath, message.datapath.ofproto, message.datapath.ofproto_parser
        frame = packet.Packet(message.data).get_protocol(ethernet.ethernet)
        self.logger.info("packet-in from port %d: %s to %s", message.in_port, frame.src, frame.dst)
        self.port_of[datapath.id, frame.src] = message.in_port
        out_port = self.port_of.get((datapath.id, frame.dst), ofproto.OFPP_FLOOD)
        actions = [parser.OFPActionOutput(out_port)]
        if out_port != ofproto.OFPP_FLOOD:
            match = parser.OFPMatch(in_port=message.in_port, dl_src=frame.src, dl_dst=frame.dst)
            datapath.send_msg(parser.OFPFlowMod(datapath=datapath, match=match, command=ofproto.OFPFC_ADD,
                                                priority=ofproto.OFP_DEFAULT_PRIORITY, actions=actions))
        data = message.data if message.buffer_id == ofproto.OFP_NO_BUFFER else None
        datapath.send_msg(parser.OFPPacketOut(datapath=datapath, buffer_id=message.buffer_id, data=data,
                                              in_port=message.in_port, actions=actions))

    @set_ev_cls(ofp_event.EventOFPPortStatus, MAIN_DISPATCHER)
    def port_status(self, event):
        port = event.msg.desc
        is_down = port.state & event.msg.datapath.ofproto.OFPPS_LINK_DOWN
        self.logger.info("port %d is %s", port.port_no, "down" if is_down else "up")

    @set_ev_cls(ofp_event.EventOFPErrorMsg, [CONFIG_DISPATCHER, MAIN_DISPATCHER])
    def error(self, event):
        self.logger.info("error type %d code %d", event.msg.type, event.msg.code)
