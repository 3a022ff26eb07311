# fish completion for qord

complete -c qord -f
complete -c qord -s h -l help -d 'Print a help text'
complete -c qord -l version -d 'Print the version'
complete -c qord -l policy -r -F -d 'The policy file'
complete -c qord -l max-policy-size -x -d 'Refuse larger policies, in bytes'
complete -c qord -l keep -x -d 'Keep this many replaced policies'
complete -c qord -l min-free -x -d 'Store no policy if fewer MiB are left'
complete -c qord -l allow-group -x -a '(__fish_complete_groups)' -d 'Let members of this group change the policy'
complete -c qord -l allow-everyone -d 'Let everybody change the policy'
complete -c qord -l restrict-reading -d 'Let only users read the policy who may change it'
complete -c qord -l event-timeout -x -d 'Milliseconds that an application may take to answer'
complete -c qord -l process-info-interval -x -d 'Seconds between requests for process information'
complete -c qord -l verbose -d "Print the library's log lines too"
complete -c qord -l syslog -d "Write to the system's log"
complete -c qord -l test-bus-names -d 'Use the bus names meant for tests'
