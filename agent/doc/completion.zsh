#compdef krsdnctl
# Completion of krsdnctl for zsh. Ports and modules are asked of the daemon, if one answers.
_krsdnctl() {
  local -a socket
  local context state line
  typeset -A opt_args
  _arguments -C \
    '(-s --socket)'{-s,--socket}'[control socket of the daemon]:socket:_files' \
    '(-j --json)'{-j,--json}'[JSON instead of text]' \
    '(-c --count)'{-c,--count}'[end after so many]:count:' \
    '--agent[capture what passes through the daemon]' \
    '--all[trace shows all flows]' \
    '(-h --help)'{-h,--help}'[help]' \
    '(-V --version)'{-V,--version}'[version]' \
    '1:command:(show ports flows groups counters audit trace log capture events help)' \
    '*::word:->words'
  [[ $state = words ]] || return
  local named=${opt_args[-s]:-${opt_args[--socket]}}
  [[ -z $named ]] || socket=(--socket $named)
  case $line[1],$CURRENT in
    help,*) compadd show ports flows groups counters audit trace log capture events ;;
    capture,1|capture,2) compadd ${(f)"$(krsdnctl $socket ports 2>/dev/null | awk 'NR > 1 { print $2 }')"} ;;
    log,2) compadd ${(f)"$(krsdnctl $socket log 2>/dev/null | awk 'NR > 1 { print $1 }')"} ;;
    log,3) compadd error warning notice debug trace ;;
    trace,*) compadd -S '' in_port= dl_src= dl_dst= dl_vlan= dl_vlan_pcp= dl_type= nw_src= nw_dst= nw_proto= nw_tos= \
      arp_spa= arp_tpa= arp_op= tp_src= tp_dst= icmp_type= icmp_code= frame= ip arp icmp tcp udp ;;
  esac
}
_krsdnctl "$@"
