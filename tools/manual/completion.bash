# bash completion of gatewayctl, written by `gatewayctl completion bash`

_gatewayctl() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command=
  # bash splits words at "=", too.
  [[ $word == '=' ]] && word=
  [[ $before == '=' ]] && before=${COMP_WORDS[COMP_CWORD - 2]}
  ((COMP_CWORD > 1)) && command=${COMP_WORDS[1]}

  local options= words= files=
  case $command in
{commands}
  esac
  local given excluded each
  for given in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case "$command $given" in
{exclusions}
      *) continue ;;
    esac
    for each in $excluded; do options=${options// $each / }; done
  done
  case "$command $before" in
{values}
  esac

  COMPREPLY=()
  [[ $word == -* ]] && words=$options files=
  if [[ -n $files ]]; then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  else
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
  fi
}

complete -F _gatewayctl gatewayctl
