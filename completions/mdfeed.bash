# SPDX-License-Identifier: Apache-2.0
# bash completion of mdfeed
_mdfeed() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local input='--file --simulate --repeat' flight='--seed --start --geoid' network='--interface --ttl --tos'
  local destination='--udp --serial --pty --baud' pace='--rate --count --duration' options
  COMPREPLY=()
  case $previous in
    --file | --index | --geoid | --output | --serial | --pty) compopt -o filenames; COMPREPLY=($(compgen -f -- "$current")); return ;;
    --udp) compopt -o nospace; COMPREPLY=($(compgen -W '127.0.0.1:' -- "$current")); return ;;
    --interface) COMPREPLY=($(compgen -W "$(cd /sys/class/net 2>/dev/null && echo *)" -- "$current")); return ;;
    --damage)
      COMPREPLY=($(compgen -W 'sync length1 length2 length3 check1 check2 check3 codeword check-bits block-length crc
        arq-u arq-hash channel' -- "$current"))
      return ;;
    --repeat | --chunk | --seed | --start | --ttl | --tos | --baud | --rate | --count | --duration | --uid | --sensors | \
      --jitter | --channel | --payload-type | --loss | --reorder | --bad-checksum | --messages) return ;;
  esac
  if ((COMP_CWORD == 1)); then
    COMPREPLY=($(compgen -W 'klv cot anc ts -h --help --version' -- "$current"))
    return
  fi
  case ${COMP_WORDS[1]} in
    klv) options="$input --index --chunk $flight $destination $network $pace" ;;
    cot) options="$input $flight --uid --sensors --jitter --channel --damage $destination $network $pace" ;;
    anc) options="$input $flight --payload-type --loss --reorder --bad-checksum --udp $network $pace" ;;
    ts) options="$flight --output --duration --rate --messages" ;;
    *) return ;;
  esac
  COMPREPLY=($(compgen -W "-h --help $options" -- "$current"))
}
complete -F _mdfeed mdfeed
