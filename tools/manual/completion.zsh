#compdef gatewayctl
# zsh completion of gatewayctl, written by `gatewayctl completion zsh`

_gatewayctl() {
  local command=
  local -a commands=(
{commands}
  )
  if ((CURRENT > 2)); then
    command=$words[2]
    shift words
    ((CURRENT--))
  elif [[ $PREFIX != -* ]]; then
    _describe command commands
    return
  fi
  case $command in
{arguments}
  esac
}

# As a file of $fpath this is the body of the function; sourced, it only defines it.
if [[ $funcstack[1] == _gatewayctl ]]; then
  _gatewayctl "$@"
else
  compdef _gatewayctl gatewayctl
fi
