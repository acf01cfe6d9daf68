#compdef vigmond
# zsh completion for vigmond

_arguments -s \
    '(- *)'{-h,--help}'[show the options]' \
    '(- *)'{-d,--dump}'[show the settings and all checks]' \
    '(- *)'{-v,--version}'[show the version]' \
    '(-D --debug)'{-D,--debug}'[send the traces to standard error]' \
    '(-L --logfile)'{-L+,--logfile=}'[the status log]:file:_files' \
    '(-S --logfilesize)'{-S+,--logfilesize=}'[maximum size in KB, 10 to 102400]:KB:' \
    '(-C --logfilecount)'{-C+,--logfilecount=}'[number of rotated logs to keep, 0 to 128]:count:' \
    '(-l --loglevel)'{-l+,--loglevel=}'[records to write]:level:(fail warning OK)' \
    '(-s --severitylevel)'{-s+,--severitylevel=}'[sentences to send]:severity:(critical failed warning OK)'
