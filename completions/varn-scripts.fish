# Completion of varn-scripts for fish.

# What takes a value, apart from the flags.
set -g __varn_scripts_with_value --config --base-path --data-path --customer --server --ca-file \
    --client-cert --client-key --proxy --trusted-key --signatures-needed --header-file --netrc-file \
    --retry --max-download --max-output --log-level --log-format --log-file --log-target \
    --accept-codes --keep-for --digest --passphrase-file --signature

# The words before the cursor without options and their values: the command and its arguments.
function __varn_scripts_words
    set -l option ''
    for word in (commandline -opc)[2..-1]
        if test -n "$option"
            set option ''
        else if contains -- $word $__varn_scripts_with_value
            set option $word
        else if not string match -q -- '-*' $word
            echo $word
        end
    end
end

function __varn_scripts_needs_command
    test (count (__varn_scripts_words)) -eq 0
end

# Whether the command is the given one, a word or two.
function __varn_scripts_after
    set -l words (__varn_scripts_words)
    set -l length (count $argv)
    test (count $words) -ge $length; and test "$words[1..$length]" = "$argv"
end

# Whether the command is one of those given after a number, and has fewer arguments than that.
function __varn_scripts_wants
    set -l words (__varn_scripts_words)
    test (count $words) -gt 0; and contains -- $words[1] $argv[2..-1]
    and test (count $words) -le $argv[1]
end

# The scripts that this computer knows, as the settings on the line and the environment's tell where
# to look.
function __varn_scripts_known
    set -l words (commandline -opc)
    set -l places
    set -l option ''
    for word in $words[2..-1]
        if test -n "$option"
            set -a places $option (string replace -r '^~/' "$HOME/" -- $word)
            set option ''
        else if contains -- $word --config --base-path --data-path --customer
            set option $word
        else if string match -qr -- '^--(config|base-path|data-path|customer)=' $word
            set -a places $word
        end
    end
    $words[1] --quiet $places list --json 2>/dev/null </dev/null |
        string match -ar '"script_id":"[A-Za-z0-9._-]*"' | string replace -r '.*:"(.*)"' '$1'
end

complete -c varn-scripts -f

# ---- Settings, which stand before the command or after it ----

complete -c varn-scripts -l config -r -F -d 'settings file'
complete -c varn-scripts -l base-path -x -a '(__fish_complete_directories)' -d 'agent base directory'
complete -c varn-scripts -l data-path -x -a '(__fish_complete_directories)' -d 'agent data directory'
complete -c varn-scripts -l customer -x -d 'customer ID'
complete -c varn-scripts -n 'not __varn_scripts_after list' -l server -x -a 'https:// http:// file://' -d 'repository server'
complete -c varn-scripts -l ca-file -r -F -d 'authorities to trust'
complete -c varn-scripts -l client-cert -r -F -d 'client certificate'
complete -c varn-scripts -l client-key -r -F -d 'key of the client certificate'
complete -c varn-scripts -l proxy -x -d 'proxy'
complete -c varn-scripts -l trusted-key -r -F -d 'a key by which the list must be signed'
complete -c varn-scripts -l signatures-needed -x -d 'how many of the keys have to have signed'
complete -c varn-scripts -l header-file -r -F -d 'more headers for the server'
complete -c varn-scripts -l netrc-file -r -F -d 'login for the server'
complete -c varn-scripts -l retry -x -d 'how often a download that failed is tried again'
complete -c varn-scripts -l max-download -x -d 'most bytes of one download'
complete -c varn-scripts -l max-output -x -d 'most bytes of the output that are written and logged'
complete -c varn-scripts -s v -l verbose -d 'log on standard error'
complete -c varn-scripts -l log-level -x -a 'info warning error' -d 'least that is logged'
complete -c varn-scripts -l log-format -x -a 'text json' -d 'form of the log'
complete -c varn-scripts -l log-file -r -F -d 'log to a rotating file'
complete -c varn-scripts -l log-target -x -a 'syslog journald' -d 'log to the system\'s log'
complete -c varn-scripts -l quiet -d 'no progress, warnings or log on standard error'
complete -c varn-scripts -s h -l help -d 'print a summary'
complete -c varn-scripts -n __varn_scripts_needs_command -l version -d 'print the version'

# ---- Commands ----

complete -c varn-scripts -n __varn_scripts_needs_command -a run -d 'fetch, verify and run one script'
complete -c varn-scripts -n __varn_scripts_needs_command -a plan -d 'tell what run would do now'
complete -c varn-scripts -n __varn_scripts_needs_command -a prune -d 'remove local copies of scripts the server dropped'
complete -c varn-scripts -n __varn_scripts_needs_command -a list -d 'list the local records, or the server\'s scripts'
complete -c varn-scripts -n __varn_scripts_needs_command -a publish -d 'turn a directory of scripts into a server\'s tree'
complete -c varn-scripts -n __varn_scripts_needs_command -a key -d 'make, show and try keys'

complete -c varn-scripts -n '__varn_scripts_wants 1 key' -a 'generate show verify' -d command
for each in generate show verify
    complete -c varn-scripts -n "__varn_scripts_after key $each" -F
end
complete -c varn-scripts -n '__varn_scripts_wants 1 run plan' -a '(__varn_scripts_known)' -d script
complete -c varn-scripts -n '__varn_scripts_wants 2 publish' -a '(__fish_complete_directories)'

# ---- Their options ----

complete -c varn-scripts -n '__varn_scripts_after run' -l accept-codes -x -d 'exit codes that count as success'
complete -c varn-scripts -n '__varn_scripts_after run' -l json -d 'print the result as one JSON object'
complete -c varn-scripts -n '__varn_scripts_after run' -l follow -d 'write the output as it comes'
complete -c varn-scripts -n '__varn_scripts_after run' -l no-wait -d 'fail when another process runs the script'

complete -c varn-scripts -n '__varn_scripts_after plan' -l json -d 'print the plan as one JSON object'

complete -c varn-scripts -n '__varn_scripts_after prune' -l dry-run -d 'print what would be removed, remove nothing'
complete -c varn-scripts -n '__varn_scripts_after prune' -l json -d 'print what is removed as one JSON object'

complete -c varn-scripts -n '__varn_scripts_after list' -l server -d 'list what the server has'
complete -c varn-scripts -n '__varn_scripts_after list' -l json -d 'print a JSON array'

complete -c varn-scripts -n '__varn_scripts_after publish' -l keep-for -x -d 'how long files stay that the list no longer names'
complete -c varn-scripts -n '__varn_scripts_after publish' -l digest -x -a 'md5 sha1 sha224 sha256 sha384 sha512' -d 'digest of the checksums'
complete -c varn-scripts -n '__varn_scripts_after publish' -l strict -d 'refuse what is a warning otherwise'
complete -c varn-scripts -n '__varn_scripts_after publish' -l check -d 'check only, write nothing'
complete -c varn-scripts -n '__varn_scripts_after publish' -l allow-removal -d 'publish a manifest without a script'

complete -c varn-scripts -n '__varn_scripts_after key generate' -l no-passphrase -d 'leave the key unprotected'
complete -c varn-scripts -n '__varn_scripts_after key generate' -l passphrase-file -r -F -d 'where the passphrase is'

complete -c varn-scripts -n '__varn_scripts_after key show' -l passphrase-file -r -F -d 'where the passphrase is'

complete -c varn-scripts -n '__varn_scripts_after key verify' -l signature -r -F -d 'file of a signature'
