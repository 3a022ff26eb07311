# fish completion for qorctl

set -l commands set-policy get-policy diff history restore validate listen status clients info

function __qorctl_kept
    qorctl --timeout 1 history 2>/dev/null | string match -r '^[0-9]+'
end

complete -c qorctl -f
complete -c qorctl -s h -l help -d 'Print a help text'
complete -c qorctl -l version -d 'Print the version'
complete -c qorctl -l quiet -d 'Print errors and events only'
complete -c qorctl -l verbose -d "Print the library's log lines too"
complete -c qorctl -l json -d 'Print the result as JSON'
complete -c qorctl -l timeout -x -d 'End after this many seconds'
complete -c qorctl -l test-bus-names -d 'Use the bus names meant for tests'

complete -c qorctl -n "not __fish_seen_subcommand_from $commands" -a set-policy -d 'Hand the service a new policy'
complete -c qorctl -n "not __fish_seen_subcommand_from $commands" -a get-policy -d 'Write the policy in force, or a kept one'
complete -c qorctl -n "not __fish_seen_subcommand_from $commands" -a diff -d 'Show the differences between two policies'
complete -c qorctl -n "not __fish_seen_subcommand_from $commands" -a history -d 'List the policies that the service keeps'
complete -c qorctl -n "not __fish_seen_subcommand_from $commands" -a restore -d 'Put a kept policy in force again'
complete -c qorctl -n "not __fish_seen_subcommand_from $commands" -a validate -d 'Check a policy as the service would'
complete -c qorctl -n "not __fish_seen_subcommand_from $commands" -a listen -d "Print the service's events as they arrive"
complete -c qorctl -n "not __fish_seen_subcommand_from $commands" -a status -d 'Show the state of the service'
complete -c qorctl -n "not __fish_seen_subcommand_from $commands" -a clients -d 'List the applications that are registered for events'
complete -c qorctl -n "not __fish_seen_subcommand_from $commands" -a info -d 'Print the path of the policy, and facts about the platform'

complete -c qorctl -n '__fish_seen_subcommand_from set-policy validate' -F
complete -c qorctl -n '__fish_seen_subcommand_from set-policy' -l no-check -d 'Send it without checking it'
complete -c qorctl -n '__fish_seen_subcommand_from set-policy restore' -l wait -d 'Wait until all have heard of it, at most =SECONDS'
complete -c qorctl -n '__fish_seen_subcommand_from set-policy restore' -l if-match -x -d 'Only if the policy in force has this SHA-256'
complete -c qorctl -n '__fish_seen_subcommand_from get-policy diff restore' -a '(__qorctl_kept)' -d 'Kept policy'
complete -c qorctl -n '__fish_seen_subcommand_from get-policy' -l output -r -F -d 'Write to a file'
complete -c qorctl -n '__fish_seen_subcommand_from status' -l check -d 'Print only what is wrong'
complete -c qorctl -n '__fish_seen_subcommand_from listen' -l count -x -d 'Exit after this many events'
complete -c qorctl -n '__fish_seen_subcommand_from listen' -l exec -x -a '(__fish_complete_command)' -d 'Run on each event'
