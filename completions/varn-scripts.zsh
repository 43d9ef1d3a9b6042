#compdef varn-scripts
# Completion of varn-scripts for zsh.

_varn_scripts_known() {
  # The scripts that this computer knows, when the environment's settings tell where to look.
  local -a known
  known=(${(f)"$(_call_program scripts varn-scripts --quiet list --json 2>/dev/null |
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
            '*--trusted-key[a key whose signature counts]:key:_files' \
            '--signatures-needed[how many keys have to have signed]:number:' \
            '*--signature[file of a signature]:file:_files' \
            '1:list:_files'
          ;;
      esac
      ;;
  esac
}

_varn_scripts() {
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
    '--max-download[most bytes of one download]:bytes:'
    '--max-output[most bytes of the output that are written and logged]:bytes:'
    '--log-format[form of the log]:form:(text json)'
    '--log-file[log to a rotating file]:file:_files'
    '--quiet[no log on standard error]'
    '(- *)'{-h,--help}'[print a summary]'
  )
  commands=(
    'run:fetch, verify and run one script'
    'plan:tell what run would do now'
    'prune:remove local copies of scripts the server dropped'
    'list:list the local records'
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
            '--json[print the result as one JSON object]' \
            '--no-wait[fail when another process runs the script]' \
            '1:script:_varn_scripts_known'
          ;;
        plan)
          _arguments $settings '--json[print the plan as one JSON object]' \
            '1:script:_varn_scripts_known'
          ;;
        list) _arguments $settings '--json[print the records as a JSON array]' ;;
        prune) _arguments $settings ;;
        key) _varn_scripts_key ;;
        publish)
          _arguments $settings \
            '--keep-for[how long files stay that the list no longer names]:time:' \
            '--digest[digest of the checksums]:digest:(md5 sha1 sha224 sha256 sha384 sha512)' \
            '--strict[refuse what is a warning otherwise]' \
            '--check[check only, write nothing]' \
            '--allow-removal[publish a manifest without a script]' \
            '1:source directory:_files -/' '2:output directory:_files -/'
          ;;
      esac
      ;;
  esac
}

_varn_scripts "$@"
