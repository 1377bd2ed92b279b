# SPDX-License-Identifier: Apache-2.0
# bash completion of mdencoder
_mdencoder() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case ${COMP_WORDS[1]-}/$previous in
    inspect/--tls-ca | decode/--tls-ca) compopt -o filenames; COMPREPLY=($(compgen -f -- "$current")); return ;;
    inspect/--format) COMPREPLY=($(compgen -W 'text json' -- "$current")); return ;;
    decode/--format) COMPREPLY=($(compgen -W 'table json csv' -- "$current")); return ;;
    */--seconds | */--gap | */--messages | */--columns | */--items) return ;;
  esac
  if ((COMP_CWORD > 1)) && [[ ${COMP_WORDS[1]} == inspect || ${COMP_WORDS[1]} == decode ]]; then
    if [[ $current != -* ]]; then
      compopt -o filenames
      COMPREPLY=($(compgen -f -- "$current"))
    elif [[ ${COMP_WORDS[1]} == inspect ]]; then
      COMPREPLY=($(compgen -W '-h --help --format --seconds --gap --messages --tls-ca' -- "$current"))
    else
      COMPREPLY=($(compgen -W '-h --help --format --columns --items --wide --seconds --messages --tls-ca' -- "$current"))
    fi
    return
  fi
  case $previous in
    --format) COMPREPLY=($(compgen -W 'table json csv none' -- "$current")); return ;;
    --extended-tags | --retry) COMPREPLY=($(compgen -W 'yes no' -- "$current")); return ;;
    --heights) COMPREPLY=($(compgen -W 'required optional' -- "$current")); return ;;
    --capabilities) COMPREPLY=($(compgen -W 'cot ipv4 ipv6' -- "$current")); return ;;
    --log-level) COMPREPLY=($(compgen -W '0 1 2 3 4 5 6 7 8' -- "$current")); return ;;
    --log-levels) compopt -o nospace; COMPREPLY=($(compgen -W 'METADATALIB: COTCONVERTER: HOST: KLVCAPTURE:' -- "$current")); return ;;
    --track-format) COMPREPLY=($(compgen -W 'geojson kml gpx' -- "$current")); return ;;
    --output-dir | --track-dir) compopt -o filenames; COMPREPLY=($(compgen -d -- "$current")); return ;;
    --http) COMPREPLY=($(compgen -W '127.0.0.1:8080' -- "$current")); return ;;
    --http-token | --http-cert | --http-key | --stats-json | --stats-file | --summary | --library | --host-config) compopt -o filenames; COMPREPLY=($(compgen -f -- "$current")); return ;;
    --columns | --items | --status-interval | --duration | --messages | --messages-each | --stats-interval | --queue | --rotate-size | --rotate-time | --silence | --track-interval | --http-host | --tiles | --tiles-attribution) return ;;
  esac
  if [[ $current == -* ]]; then
    COMPREPLY=($(compgen -W '-h --help --version --check --check-text --format --columns --items --wide --output-dir --rotate-size --rotate-time
      --track-dir --track-format --track-interval --status-interval --stream-header
      --duration --messages --messages-each --stats-interval --silence --stats-json --stats-file --summary --live
      --http --http-token --http-cert --http-key --http-host --tiles --tiles-attribution --library
      --host-config --capabilities --extended-tags --heights --retry --log-level --log-levels --queue' -- "$current"))
  else
    compopt -o filenames
    COMPREPLY=($(compgen -f -X '!*.ini' -- "$current") $(compgen -d -- "$current"))
    ((COMP_CWORD > 1)) || COMPREPLY+=($(compgen -W 'inspect decode' -- "$current"))
  fi
}
complete -F _mdencoder mdencoder
