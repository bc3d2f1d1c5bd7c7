# bash completion for zsm                                    -*- shell-script -*-
#
# Works with the bash-completion package (its helpers split words at "=" and
# ":" the way a user expects and complete folder names) and without it: a bare
# bash that sources this file gets the same words.

_zsm() {
  local cur prev words cword
  if declare -F _init_completion >/dev/null; then
    _init_completion || return
  else
    words=("${COMP_WORDS[@]}")
    cword=$COMP_CWORD
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=""
    ((COMP_CWORD > 0)) && prev=${COMP_WORDS[COMP_CWORD - 1]}
  fi

  local commands="config settings status subscribe unsubscribe subscriptions sync feeds items
    library deferred publish wake demo help"
  local globals="--data --json --log-level --timeout --keep-free --help --version"
  local settings_keys="max-items autodelete max-bitrate last-sync verbose"

  case $prev in
    --data | --folder)
      if declare -F _filedir >/dev/null; then
        _filedir -d
      else
        COMPREPLY=($(compgen -d -- "$cur"))
      fi
      return
      ;;
    --server-program | --secret-file)
      if declare -F _filedir >/dev/null; then
        _filedir
      else
        COMPREPLY=($(compgen -f -- "$cur"))
      fi
      return
      ;;
    --log-level)
      COMPREPLY=($(compgen -W "error warning info debug" -- "$cur"))
      return
      ;;
    --autodelete)
      COMPREPLY=($(compgen -W "on off" -- "$cur"))
      return
      ;;
    --since)
      COMPREPLY=($(compgen -W "1d 7d 30d" -- "$cur"))
      return
      ;;
    --content-type)
      COMPREPLY=($(compgen -W "0 1 2 3 4 5" -- "$cur"))
      return
      ;;
  esac

  # The command is the first word that is neither an option nor its value;
  # the words after it that are not options are its arguments.
  local i command="" args=()
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --data | --log-level | --timeout | --keep-free) [ -z "$command" ] && ((i++)) ;;
      -*) ;;
      *)
        if [ -z "$command" ]; then
          command=${words[i]}
        else
          args+=("${words[i]}")
        fi
        ;;
    esac
  done

  local options=""
  case $command in
    "")
      COMPREPLY=($(compgen -W "$commands $globals" -- "$cur"))
      return
      ;;
    help) options="$commands --all" ;;
    config) options="--server --user --key --secret --secret-file --device-id --reveal" ;;
    settings)
      # settings [get | set KEY VALUE]: after "set" the keys, after a key its values.
      case "${args[0]}:${#args[@]}" in
        :0) options="get set" ;;
        set:1) options="$settings_keys" ;;
        set:2)
          case ${args[1]} in
            autodelete | verbose) options="on off" ;;
            last-sync) options="now now-1d now-7d now-30d" ;;
            max-items | max-bitrate) options="0" ;;
          esac
          COMPREPLY=($(compgen -W "$options" -- "$cur"))
          return
          ;;
        *) options="" ;;
      esac
      ;;
    subscribe) options="--max-items --autodelete --max-bitrate" ;;
    unsubscribe) options="--all" ;;
    sync) options="--since --force --watch --watch-timeout" ;;
    items)
      case ${args[0]} in
        retry) options="--all --watch-timeout" ;;
        forget) options="--all" ;;
        *) options="retry forget --feed" ;;
      esac
      ;;
    publish)
      options="--title --desc --url --stream-url --content-size --duration --content-type"
      ;;
    wake)
      case ${args[0]} in
        push) options="--no-sync --watch" ;;
        fetch) options="--watch" ;;
        *) options="push fetch" ;;
      esac
      ;;
    demo) options="--server-program --folder --link-rate" ;;
  esac
  COMPREPLY=($(compgen -W "$options $globals" -- "$cur"))
}
complete -F _zsm zsm
