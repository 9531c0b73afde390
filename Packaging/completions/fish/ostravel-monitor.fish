complete -c ostravel-monitor -f
complete -c ostravel-monitor -l help -d 'Show the options'
complete -c ostravel-monitor -l version -d 'Show the version'
complete -c ostravel-monitor -l socket -rF -d 'Listen on this UNIX socket'
complete -c ostravel-monitor -l group -xa '(__fish_complete_groups)' -d 'Group whose members may connect'
complete -c ostravel-monitor -l mode -xa '0600 0660' -d 'Mode of the socket, in octal'
complete -c ostravel-monitor -l json -d 'Print each event as one line of JSON'
