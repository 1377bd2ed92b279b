# SPDX-License-Identifier: Apache-2.0
# bash completion of make_geoid_grid
_make_geoid_grid() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case $previous in
    --input | --output) compopt -o filenames; COMPREPLY=($(compgen -f -- "$current")) ;;
    *) COMPREPLY=($(compgen -W '-h --help --version --input --output' -- "$current")) ;;
  esac
}
complete -F _make_geoid_grid make_geoid_grid
