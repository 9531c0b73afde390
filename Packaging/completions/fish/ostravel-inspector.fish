complete -c ostravel-inspector -f
complete -c ostravel-inspector -s h -l help -d 'Show the options'
complete -c ostravel-inspector -l version -d 'Show the version'
complete -c ostravel-inspector -l client -xa '(__fish_complete_users)' -d 'User who may ask'
