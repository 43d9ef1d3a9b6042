# Completion of varn-scripts for bash.

# The IDs of the scripts that this computer knows, as the settings before the cursor ($2...) and the
# environment's tell where to look; $1 is the command.
_varn_scripts_known() {
  "$1" --quiet "${@:2}" list --json 2>/dev/null </dev/null |
    grep -o '"script_id":"[A-Za-z0-9._-]*"' | cut -d '"' -f 4
}

# A word as it was typed, as the shell would hand it on. Never evaluated: it may hold a command.
_varn_scripts_unquoted() {
  case $1 in
    \"*\") printf %s "${1:1:${#1}-2}" ;;
    \'*\') printf %s "${1:1:${#1}-2}" ;;
    \~/*) printf %s "$HOME$(_varn_scripts_unquoted "${1:1}")" ;;
    *) printf %s "${1//\\/}" ;;
  esac
}

_varn_scripts() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  # In "--name=value" the shell makes three words of it.
  if [[ $current == "=" ]]; then
    current=
  elif [[ $previous == "=" ]] && ((COMP_CWORD > 1)); then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi

  local settings="--config --base-path --data-path --customer --server --ca-file --client-cert
    --client-key --proxy --trusted-key --signatures-needed --header-file --netrc-file --retry
    --max-download --max-output --verbose --log-level --log-format --log-file --log-target --quiet
    --help"
  local with_value=" --config --base-path --data-path --customer --server --ca-file --client-cert
    --client-key --proxy --trusted-key --signatures-needed --header-file --netrc-file --retry
    --max-download --max-output --log-level --log-format --log-file --log-target --accept-codes
    --keep-for --digest --passphrase-file --signature "

  compopt +o default 2>/dev/null
  case $previous in
    --config | --ca-file | --client-cert | --client-key | --header-file | --netrc-file | \
      --log-file | --passphrase-file | --trusted-key | --signature)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -f -- "$current")
      return
      ;;
    --base-path | --data-path)
      compopt -o filenames 2>/dev/null
      mapfile -t COMPREPLY < <(compgen -d -- "$current")
      return
      ;;
    --log-format)
      mapfile -t COMPREPLY < <(compgen -W "text json" -- "$current")
      return
      ;;
    --log-level)
      mapfile -t COMPREPLY < <(compgen -W "info warning error" -- "$current")
      return
      ;;
    --log-target)
      mapfile -t COMPREPLY < <(compgen -W "syslog journald" -- "$current")
      return
      ;;
    --digest)
      mapfile -t COMPREPLY < <(compgen -W "md5 sha1 sha224 sha256 sha384 sha512" -- "$current")
      return
      ;;
    --server)
      # Behind `list` it may be without a URL, and another option may follow.
      if [[ $current != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "https:// http:// file://" -- "$current")
        compopt -o nospace 2>/dev/null
        return
      fi
      ;;
    --customer | --proxy | --retry | --max-download | --max-output | --accept-codes | --keep-for | \
      --signatures-needed)
      COMPREPLY=()
      return
      ;;
  esac

  # The command among the words before this one, how many arguments it has by now, and the settings
  # that tell where its records are.
  local word command="" arguments=0 option="" places=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [[ -n $option && $word != "=" ]]; then
      case $option in
        --config | --base-path | --data-path | --customer)
          places+=("$option" "$(_varn_scripts_unquoted "$word")")
          ;;
      esac
      option=
    elif [[ $with_value == *[[:space:]]"$word"[[:space:]]* ]]; then
      option=$word
      # Of `list` it needs no value.
      if [[ $command == list && $word == --server ]]; then option=; fi
    elif [[ $word == -* || $word == "=" ]]; then
      continue
    elif [[ -z $command ]]; then
      command=$word
    elif [[ $command == key ]]; then
      command="key $word"
    else
      arguments=$((arguments + 1))
    fi
  done

  local options
  case $command in
    "") options="$settings --version" ;;
    run) options="$settings --accept-codes --json --follow --no-wait" ;;
    plan) options="$settings --json" ;;
    prune) options="$settings --dry-run --json" ;;
    list) options="$settings --server --json" ;;
    key) options=$settings ;;
    publish) options="$settings --keep-for --digest --strict --check --allow-removal" ;;
    "key generate") options="$settings --no-passphrase --passphrase-file" ;;
    "key show") options="$settings --passphrase-file" ;;
    "key verify") options="$settings --signature" ;;
    *) options= ;;
  esac
  if [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
  elif [[ -z $command ]]; then
    mapfile -t COMPREPLY < <(compgen -W "run plan prune list publish key" -- "$current")
  elif [[ $command == key ]]; then
    mapfile -t COMPREPLY < <(compgen -W "generate show verify" -- "$current")
  elif [[ $command == "key "* ]] && ((arguments == 0)); then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  elif [[ $command == publish ]] && ((arguments < 2)); then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
  elif [[ $command == run || $command == plan ]] && ((arguments == 0)); then
    mapfile -t COMPREPLY < <(compgen -W \
      "$(_varn_scripts_known "${COMP_WORDS[0]}" "${places[@]}")" -- "$current")
  else
    COMPREPLY=()
  fi
}

complete -F _varn_scripts varn-scripts
