complete -c ostravelctl -f
complete -c ostravelctl -l help -d 'Show the options'
complete -c ostravelctl -l version -d 'Show the version'
complete -c ostravelctl -l socket -rF -d 'The control socket'
complete -c ostravelctl -l json -d 'Print JSON'
complete -c ostravelctl -n __fish_use_subcommand -a status -d 'Whether new connections are proxied'
complete -c ostravelctl -n __fish_use_subcommand -a flows -d 'The last decisions'
complete -c ostravelctl -n __fish_use_subcommand -a top -d 'A live screen'
complete -c ostravelctl -n __fish_use_subcommand -a explain -d 'What would happen to a flow'
complete -c ostravelctl -n __fish_use_subcommand -a reload -d 'Read the registrations again'
complete -c ostravelctl -n __fish_use_subcommand -a check -d 'Examine this machine'
complete -c ostravelctl -n '__fish_seen_subcommand_from flows' -l follow -d 'Go on'
complete -c ostravelctl -n '__fish_seen_subcommand_from explain' -l udp -d 'A flow of UDP'
complete -c ostravelctl -n '__fish_seen_subcommand_from explain' -F
