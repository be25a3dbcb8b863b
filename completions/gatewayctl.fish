# fish completion of gatewayctl

function __gatewayctl_rules
    gatewayctl check --list-rules 2>/dev/null | string match --regex '^\S+'
end

function __gatewayctl_at
    set --local words (commandline --tokenize --cut-at-cursor --current-process)
    test (count $words) -ge 2; and test $words[2] = $argv[1]
end

function __gatewayctl_first
    test (count (commandline --tokenize --cut-at-cursor --current-process)) -eq 1
end

complete -c gatewayctl -f
complete -c gatewayctl -s h -l help -d 'Print a short manual'

complete -c gatewayctl -n __gatewayctl_first -l version -d 'Print the version'
complete -c gatewayctl -n __gatewayctl_first -a check -d 'Explain what the module makes of files'
complete -c gatewayctl -n __gatewayctl_first -a demo -d 'Run all between simulated services'
complete -c gatewayctl -n __gatewayctl_first -a discover -d 'Write a configuration by listening'
complete -c gatewayctl -n __gatewayctl_first -a host -d 'Run the module without the engine'
complete -c gatewayctl -n __gatewayctl_first -a sim -d 'Stand in for both services'

set --local at '__gatewayctl_at check'
complete -c gatewayctl -n $at -F
complete -c gatewayctl -n $at -l strict -d 'End with 3 if there are warnings'
complete -c gatewayctl -n $at -l json -d 'Write one JSON document'
complete -c gatewayctl -n $at -l slots -d 'Print the slots that the host will see'
complete -c gatewayctl -n $at -l allow -xa '(__gatewayctl_rules)' -d 'Pass over warnings of a rule'
complete -c gatewayctl -n $at -l list-rules -d 'Print all rules'
complete -c gatewayctl -n $at -l explain -xa '(__gatewayctl_rules)' -d 'Explain a rule'

set --local at '__gatewayctl_at demo'
complete -c gatewayctl -n $at -l for -x -d 'End by itself after SECONDS'
complete -c gatewayctl -n $at -l set -x -d 'Change engine slots by NAME=VALUE'
complete -c gatewayctl -n $at -l page -x -d 'Serve the live page at ADDRESS:PORT'
complete -c gatewayctl -n $at -l no-page -d 'Serve no live page'
complete -c gatewayctl -n $at -l watch-rate -x -d 'Changes printed per second and slot'
complete -c gatewayctl -n $at -l no-watch -d 'Print no changes'

set --local at '__gatewayctl_at discover'
complete -c gatewayctl -n $at -l for -x -d 'Listen for SECONDS'
complete -c gatewayctl -n $at -l custom-keys -d 'Name each slot after its key'
complete -c gatewayctl -n $at -l json -d 'Write what was seen as a JSON document'

set --local at '__gatewayctl_at host'
complete -c gatewayctl -n $at -F
complete -c gatewayctl -n $at -l module -rF -d 'The file of the module'
complete -c gatewayctl -n $at -l name -x -d 'Name of the module instance'
complete -c gatewayctl -n $at -l json -d 'Write JSON lines'
complete -c gatewayctl -n $at -l watch -d 'Print each slot when its value has changed'
complete -c gatewayctl -n $at -l watch-rate -x -d 'Changes printed per second and slot'
complete -c gatewayctl -n $at -l for -x -d 'End after SECONDS'
complete -c gatewayctl -n $at -l set -x -d 'Change engine slots by NAME=VALUE'
complete -c gatewayctl -n $at -l page -x -d 'Serve the live page at ADDRESS:PORT'
complete -c gatewayctl -n $at -l no-page -d 'Serve no live page'
complete -c gatewayctl -n $at -l token -x -d 'What whoever wants the live page must know'
complete -c gatewayctl -n $at -l cycles -x -d 'Start and stop so many times'

set --local at '__gatewayctl_at sim'
complete -c gatewayctl -n $at -l meters -x -d 'Serve meters at ADDRESS:PORT'
complete -c gatewayctl -n $at -l engine -x -d 'Serve the engine at ADDRESS:PORT'
complete -c gatewayctl -n $at -l strict-pings -d 'Send clients away that ping too often'
complete -c gatewayctl -n $at -l for -x -d 'End by itself after SECONDS'
complete -c gatewayctl -n $at -l keys -x -d 'What plays, as RATE:TYPE:KEY'
complete -c gatewayctl -n $at -l config -rF -d 'A configuration, all meter keys of which play'
complete -c gatewayctl -n $at -l values-per-message -x -d 'The most values in a message'
complete -c gatewayctl -n $at -l rate-fast -x -d 'Messages per second of a fast stream'
complete -c gatewayctl -n $at -l rate-slow -x -d 'Messages per second of a slow stream'
complete -c gatewayctl -n $at -l seed -x -d 'Another seed plays other values'
complete -c gatewayctl -n $at -l heartbeat -x -d 'Send an empty message when quiet for SECONDS'
complete -c gatewayctl -n $at -l fault -x -d 'Something that goes wrong, as WHEN: FAULT'
complete -c gatewayctl -n $at -l fault-plan -rF -d 'A file of faults'
complete -c gatewayctl -n $at -l live-faults -d 'Take faults on standard input, too'
complete -c gatewayctl -n $at -l json -d 'Tell all in JSON lines'
complete -c gatewayctl -n $at -l commands -d 'Take commands on standard input'
