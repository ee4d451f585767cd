# Completion of quellon's command line, for bash.

_quellon() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local words=--help
  COMPREPLY=()
  case $COMP_CWORD:${COMP_WORDS[1]} in
    1:*) words='health card catalogue watchdog clock counter log --help --version' ;;
    *:health) words='--json --prometheus --help' ;;
    2:card) words='check prove prepare --help' ;;
    *:card)
      case ${COMP_WORDS[2]} in
        check) words='--repair --help' ;;
        prove) words='--samples --erase --help' ;;
        prepare) words='--erase --help' ;;
      esac
      ;;
    *:clock) words='--set --help' ;;
    *:counter) words='--clear --help' ;;
    *:log) words='-n --errors --help' ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
  # Names of files and folders, where one is meant.
  case ${COMP_WORDS[1]}:$before in
    health:--prometheus) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    catalogue:catalogue) mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -d -- "$word") ;;
  esac
}
complete -o filenames -F _quellon quellon
