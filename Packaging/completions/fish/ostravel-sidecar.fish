complete -c ostravel-sidecar -f
complete -c ostravel-sidecar -s h -l help -d 'Show the options'
complete -c ostravel-sidecar -l version -d 'Show the version'
complete -c ostravel-sidecar -l listen -xa '127.0.0.1:8080' -d 'Address and port to listen on'
complete -c ostravel-sidecar -l time -xa 'time local utc' -d 'How times are written'
complete -c ostravel-sidecar -l verbose -d 'Also log the end of each tunnel'
