# Completion of `velostrix` for bash. The words come from its help, so that they are always its own.
_velostrix() {
  local current=$2 previous=$3 command=${COMP_WORDS[1]} help words
  if [ "$COMP_CWORD" -eq 1 ]; then
    words=$(velostrix --help | sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\{1,\}\) .*/\1/p')
    mapfile -t COMPREPLY < <(compgen -W "$words --help --version" -- "$current")
    return
  fi
  help=$(velostrix "$command" --help 2>/dev/null)
  # The choices of an option stand behind it in braces.
  words=$(sed -n "s/^  $previous [A-Z]*:{\([^}]*\)}.*/\1/p" <<<"$help" | tr ',' ' ')
  if [ -z "$words" ] && [[ $current == -* ]]; then
    words=$(sed -n 's/^  \(-[^ ]*\).*/\1/p' <<<"$help" | tr ',' ' ')
  fi
  if [ -n "$words" ]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}
complete -o filenames -F _velostrix velostrix
