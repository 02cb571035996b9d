# Completion of krsdnctl for bash. Ports and modules are asked of the daemon, if one answers.
_krsdnctl() {
  local commands='show ports flows groups counters audit trace log capture events help'
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local command='' socket=() words=() i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in
      -s | --socket) socket=(--socket "${COMP_WORDS[++i]}") ;;
      -c | --count) i=$((i + 1)) ;;
      -*) ;;
      *) if [ -z "$command" ]; then command=${COMP_WORDS[i]}; else words+=("${COMP_WORDS[i]}"); fi ;;
    esac
  done
  case $previous in
    -s | --socket) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
    -c | --count) return ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W '--socket --json --count --agent --all --help --version' -- "$current")
    return
  fi
  case $command,${#words[@]} in
    ,* | help,0) mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$current") ;;
    capture,0) mapfile -t COMPREPLY < <(compgen -W "$(krsdnctl "${socket[@]}" ports 2>/dev/null | awk 'NR > 1 { print $2 }')" -- "$current") ;;
    log,0) mapfile -t COMPREPLY < <(compgen -W "$(krsdnctl "${socket[@]}" log 2>/dev/null | awk 'NR > 1 { print $1 }')" -- "$current") ;;
    log,1) mapfile -t COMPREPLY < <(compgen -W 'error warning notice debug trace' -- "$current") ;;
    trace,*)
      compopt -o nospace 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -W 'in_port= dl_src= dl_dst= dl_vlan= dl_vlan_pcp= dl_type= nw_src= nw_dst=
        nw_proto= nw_tos= arp_spa= arp_tpa= arp_op= tp_src= tp_dst= icmp_type= icmp_code= frame= ip arp icmp tcp udp' \
        -- "$current") ;;
  esac
}
complete -F _krsdnctl krsdnctl
