#compdef varn-scripts
# Completion of varn-scripts for zsh.

_varn_scripts_known() {
  # The scripts that this computer knows, as the settings on the line and the environment's tell
  # where to look.
  local -a known places
  local word option
  for word in "${(@)typed[2,-1]}"; do
    case $word in
      --(config|base-path|data-path|customer)) option=$word; continue ;;
      --(config|base-path|data-path|customer)=*)
        places+=("${word%%=*}" "${${(Q)${word#*=}}/#\~\//$HOME/}") ;;
      *) [[ -n $option ]] && places+=("$option" "${${(Q)word}/#\~\//$HOME/}") ;;
    esac
    option=
  done
  known=(${(f)"$(_call_program scripts varn-scripts --quiet ${(q)places} list --json 2>/dev/null |
    grep -o '"script_id":"[A-Za-z0-9._-]*"' | cut -d '"' -f 4)"})
  compadd -a known
}

# What follows the word "key".
_varn_scripts_key() {
  local -a keys
  keys=(
    'generate:make a key, secret and public'
    'show:print the public key of a key'
    'verify:tell whether a list is signed by trusted keys'
  )
  local curcontext=$curcontext state line
  _arguments -C -A '-*' $settings '1:command:->command' '*::argument:->argument' && return 0
  case $state in
    command) _describe -t commands command keys ;;
    argument)
      curcontext=${curcontext%:*}-$line[1]:
      case $line[1] in
        generate)
          _arguments $settings \
            '--no-passphrase[leave the key unprotected]' \
            '--passphrase-file[where the passphrase is]:file:_files' \
            '1:new file:_files'
          ;;
        show)
          _arguments $settings '--passphrase-file[where the passphrase is]:file:_files' \
            '1:key:_files'
          ;;
        verify)
          _arguments $settings \
            '*--signature[file of a signature]:file:_files' \
            '1:list:_files'
          ;;
      esac
      ;;
  esac
}

_varn_scripts() {
  # The words before the cursor, also those that stand before the command.
  local -a typed=("${(@)words[1,CURRENT-1]}")
  local -a settings commands
  settings=(
    '--config[settings file]:file:_files'
    '--base-path[agent base directory]:directory:_files -/'
    '--data-path[agent data directory]:directory:_files -/'
    '--customer[customer ID]:customer:'
    '--server[repository server]:location:(https\:// http\:// file\://)'
    '--ca-file[authorities to trust]:file:_files'
    '--client-cert[client certificate]:file:_files'
    '--client-key[key of the client certificate]:file:_files'
    '--proxy[proxy]:location:'
    '*--trusted-key[a key by which the list must be signed]:key:_files'
    '--signatures-needed[how many of the keys have to have signed]:number:'
    '--header-file[more headers for the server]:file:_files'
    '--netrc-file[login for the server]:file:_files'
    '--retry[how often a download that failed is tried again]:number:'
    '--max-download[most bytes of one download]:bytes:'
    '--max-output[most bytes of the output that are written and logged]:bytes:'
    '(-v --verbose)'{-v,--verbose}'[log on standard error]'
    '--log-level[least that is logged]:level:(info warning error)'
    '--log-format[form of the log]:form:(text json)'
    '--log-file[log to a rotating file]:file:_files'
    "--log-target[log to the system's log]:log:(syslog journald)"
    '--quiet[no progress, warnings or log on standard error]'
    '(- *)'{-h,--help}'[print a summary]'
  )
  commands=(
    'run:fetch, verify and run one script'
    'plan:tell what run would do now'
    'prune:remove local copies of scripts the server dropped'
    "list:list the local records, or the server's scripts"
    "publish:turn a directory of scripts into a server's tree"
    'key:make, show and try keys'
  )

  local curcontext=$curcontext state line
  _arguments -C -A '-*' $settings '(- *)--version[print the version]' \
    '1:command:->command' '*::argument:->argument' && return 0
  case $state in
    command) _describe -t commands command commands ;;
    argument)
      curcontext=${curcontext%:*}-$line[1]:
      case $line[1] in
        run)
          _arguments $settings \
            '--accept-codes[exit codes that count as success]:codes:' \
            '(--follow)--json[print the result as one JSON object]' \
            '(--json)--follow[write the output as it comes]' \
            '--no-wait[fail when another process runs the script]' \
            '1:script:_varn_scripts_known'
          ;;
        plan)
          _arguments $settings '--json[print the plan as one JSON object]' \
            '1:script:_varn_scripts_known'
          ;;
        prune)
          _arguments $settings \
            '--dry-run[print what would be removed, remove nothing]' \
            '--json[print what is removed as one JSON object]'
          ;;
        list)
          # Its --server takes a value or none.
          settings=(${settings:#--server*})
          _arguments $settings \
            '--server[list what the server has]::location:(https\: http\: file\:)' \
            '--json[print a JSON array]'
          ;;
        key) _varn_scripts_key ;;
        publish)
          _arguments $settings \
            '--keep-for[how long files stay that the list no longer names]:time:' \
            '--digest[digest of the checksums]:digest:(md5 sha1 sha224 sha256 sha384 sha512)' \
            '--strict[refuse what is a warning otherwise]' \
            '--check[check, tell what would be published, write nothing]' \
            '--allow-removal[drop many scripts or all, replace a foreign list]' \
            '1:source directory:_files -/' '2:output directory:_files -/'
          ;;
      esac
      ;;
  esac
}

_varn_scripts "$@"
