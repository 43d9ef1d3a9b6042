# Completion of varn-scripts for bash.

_varn_scripts() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  # In "--name=value" the shell makes three words of it.
  if [[ $current == "=" ]]; then
    current=
  elif [[ $previous == "=" ]] && ((COMP_CWORD > 1)); then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi

  local settings="--config --base-path --data-path --customer --server --ca-file --client-cert
    --client-key --proxy --max-download --max-output --log-format --log-file --quiet --help"
  local with_value=" --config --base-path --data-path --customer --server --ca-file --client-cert
    --client-key --proxy --max-download --max-output --log-format --log-file --accept-codes --keep-for --digest
    --passphrase-file --trusted-key --signatures-needed --signature "

  compopt +o default 2>/dev/null
  case $previous in
    --config | --ca-file | --client-cert | --client-key | --log-file | --passphrase-file | \
      --trusted-key | --signature)
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
    --digest)
      mapfile -t COMPREPLY < <(compgen -W "md5 sha1 sha224 sha256 sha384 sha512" -- "$current")
      return
      ;;
    --server)
      mapfile -t COMPREPLY < <(compgen -W "https:// http:// file://" -- "$current")
      compopt -o nospace 2>/dev/null
      return
      ;;
    --customer | --proxy | --max-download | --max-output | --accept-codes | --keep-for | \
      --signatures-needed)
      COMPREPLY=()
      return
      ;;
  esac

  # The command among the words before this one, and how many arguments it has by now.
  local word command="" arguments=0 skip=0
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if ((skip)) && [[ $word != "=" ]]; then
      skip=0
    elif [[ $with_value == *[[:space:]]"$word"[[:space:]]* ]]; then
      skip=1
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
    run) options="$settings --accept-codes --json --no-wait" ;;
    plan | list) options="$settings --json" ;;
    prune | key) options=$settings ;;
    publish) options="$settings --keep-for --digest --strict --check --allow-removal" ;;
    "key generate") options="$settings --no-passphrase --passphrase-file" ;;
    "key show") options="$settings --passphrase-file" ;;
    "key verify") options="$settings --trusted-key --signatures-needed --signature" ;;
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
    # The scripts that this computer knows, when the environment's settings tell where to look.
    mapfile -t COMPREPLY < <(compgen -W "$("${COMP_WORDS[0]}" --quiet list --json 2>/dev/null |
      grep -o '"script_id":"[A-Za-z0-9._-]*"' | cut -d '"' -f 4)" -- "$current")
  else
    COMPREPLY=()
  fi
}

complete -F _varn_scripts varn-scripts
