# bash completion of gatewayctl

_gatewayctl_rules() {
  gatewayctl check --list-rules 2>/dev/null | cut --delimiter=' ' --fields=1
}

# The options of a sub-command, or of gatewayctl itself.
_gatewayctl_options() { # [SUBCOMMAND]
  case $1 in
    '') echo -h --help --version ;;
    check) echo -h --help --strict --json --slots --allow --list-rules --explain ;;
    demo) echo -h --help --for --set --page --no-page --watch-rate --no-watch ;;
    discover) echo -h --help --for --custom-keys --json ;;
    host)
      echo -h --help --module --name --json --watch --watch-rate --for --set --page --no-page \
        --token --cycles
      ;;
    sim)
      echo -h --help --meters --engine --strict-pings --for --keys --config --values-per-message \
        --rate-fast --rate-slow --seed --heartbeat --fault --fault-plan --live-faults --json \
        --commands
      ;;
  esac
}

# Whether the word in front takes a value that nobody can guess.
_gatewayctl_takes_value() { # SUBCOMMAND OPTION
  case $1:$2 in
    demo:--for | demo:--set | demo:--page | demo:--watch-rate) ;;
    discover:--for) ;;
    host:--name | host:--watch-rate | host:--for | host:--set | host:--page) ;;
    host:--token | host:--cycles) ;;
    sim:--meters | sim:--engine | sim:--for | sim:--keys | sim:--values-per-message) ;;
    sim:--rate-fast | sim:--rate-slow | sim:--seed | sim:--heartbeat | sim:--fault) ;;
    *) return 1 ;;
  esac
}

_gatewayctl_files() { # WORD
  local IFS=$'\n'
  compopt -o filenames 2>/dev/null
  COMPREPLY=($(compgen -f -- "$1"))
}

_gatewayctl() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  # bash parts words at "=", too.
  [[ $word == '=' ]] && word=
  [[ $before == '=' ]] && before=${COMP_WORDS[COMP_CWORD - 2]}
  COMPREPLY=()

  if ((COMP_CWORD == 1)); then
    COMPREPLY=($(compgen -W "check demo discover host sim $(_gatewayctl_options)" -- "$word"))
    return
  fi
  local command=${COMP_WORDS[1]}
  case $command:$before in
    check:--allow | check:--explain)
      COMPREPLY=($(compgen -W "$(_gatewayctl_rules)" -- "$word"))
      return
      ;;
    host:--module | sim:--config | sim:--fault-plan)
      _gatewayctl_files "$word"
      return
      ;;
  esac
  _gatewayctl_takes_value "$command" "$before" && return

  if [[ $word == -* ]]; then
    COMPREPLY=($(compgen -W "$(_gatewayctl_options "$command")" -- "$word"))
  elif [[ $command == check || $command == host ]]; then
    _gatewayctl_files "$word"
  fi
}

complete -F _gatewayctl gatewayctl
