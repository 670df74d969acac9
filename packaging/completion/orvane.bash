# Completion of the command orvane for bash. Commands and options come from its own help.

_orvane_commands() {
  "$1" --help 2>/dev/null | sed -n '/^Subcommands:/,$ s/^  \([a-z]\{1,\}\) .*/\1/p'
}

_orvane_options() {
  "$@" --help 2>/dev/null | sed -n 's/^  \(-[a-z],\)\{0,1\}\(--[a-z-]\{1,\}\).*/\2/p'
}

_orvane_queues() {
  "$1" ls --json 2>/dev/null | sed -n 's/^{"queue":"\([^"]*\)".*/\1/p'
}

_orvane_streams() {
  "$1" streams --json 2>/dev/null | sed -n 's/^{"stream":"\([^"]*\)".*/\1/p'
}

_orvane_words() {
  local program=$1 command=$2 before=$3 word=$4
  case $before in
    -q | --queue)
      _orvane_queues "$program"
      return
      ;;
    -s | --socket)
      compgen -G '/run/orvaned/*/socket'
      return
      ;;
    --store) return ;;
  esac
  case $command/$word in
    *"/-"*) _orvane_options "$program" $command ;;
    /* | help/*) _orvane_commands "$program" ;;
    stat/* | clean/*) _orvane_queues "$program" ;;
    cat/* | dump/* | verify/*) _orvane_streams "$program" ;;
  esac
}

_orvane() {
  [[ ${1##*/} != orvane-forward ]] || { _orvane_forward "$1" && return; }
  local command= word=${COMP_WORDS[COMP_CWORD]}
  ((COMP_CWORD == 1)) || command=${COMP_WORDS[1]}
  mapfile -t COMPREPLY < <(
    compgen -W "$(_orvane_words "$1" "$command" "${COMP_WORDS[COMP_CWORD - 1]}" "$word")" -- "$word"
  )
}

_orvane_forward() {
  local word=${COMP_WORDS[COMP_CWORD]}
  [[ $word != -* ]] || mapfile -t COMPREPLY < <(compgen -W "$(_orvane_options "$1")" -- "$word")
}

# Where it offers nothing, the shell completes the names of files.
complete -o default -F _orvane orvane
complete -o default -F _orvane_forward orvane-forward
