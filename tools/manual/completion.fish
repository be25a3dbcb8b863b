# fish completion of gatewayctl, written by `gatewayctl completion fish`

# Whether the command line is one of a sub-command ("" for none yet) without any of some words.
function __gatewayctl_in # SUBCOMMAND [WORD...]
    set --local words (commandline --tokenize --cut-at-cursor --current-process)
    test "$words[2]" = $argv[1]; or return
    for word in $argv[2..]
        contains -- $word $words; and return 1
    end
    return 0
end

complete -c gatewayctl -f
{completions}
