# bash completion for selvane-update and selvane-pack. The subcommands and options are read from
# the tools' own --help, so they always match the installed version.
_selvane_complete() {
  local tool=${COMP_WORDS[0]} cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
  local subcommands sub= word help
  subcommands=$("$tool" --help 2>/dev/null | awk '/^Subcommands:/ { s = 1; next } s && /^  [a-z]/ { printf "%s ", $1 }')
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [[ " $subcommands " == *" $word "* ]]; then
      sub=$word
      break
    fi
  done
  help=$("$tool" --help 2>/dev/null; [[ -n $sub ]] && "$tool" "$sub" --help 2>/dev/null)
  if [[ $prev == -* ]] && grep -qE -- "(^|[ ,])$prev [A-Z]" <<<"$help"; then
    # The value of an option: a directory, or a file.
    if grep -qE -- "(^|[ ,])$prev DIR" <<<"$help"; then
      mapfile -t COMPREPLY < <(compgen -d -- "$cur")
    else
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    fi
  elif [[ $cur == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$(grep -oE -- '--[a-z][a-z-]*' <<<"$help" | sort -u)" -- "$cur")
  elif [[ -z $sub ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$cur")
  else
    mapfile -t COMPREPLY < <(compgen -f -- "$cur")
  fi
}
complete -F _selvane_complete selvane-update selvane-pack
