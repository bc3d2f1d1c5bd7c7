# bash completion for zsm                                    -*- shell-script -*-

_zsm() {
  local cur prev words cword
  _init_completion || return

  local commands="config settings status subscribe unsubscribe subscriptions sync feeds items
    deferred publish wake demo help"
  local globals="--data --json --log-level --timeout --keep-free --help --version"

  case $prev in
    --data | --folder | --server-program)
      _filedir -d
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
  esac

  # The command is the first word that is neither an option nor its value.
  local i command=""
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --data | --log-level | --timeout | --keep-free) ((i++)) ;;
      -*) ;;
      *)
        command=${words[i]}
        break
        ;;
    esac
  done

  local options=""
  case $command in
    "")
      COMPREPLY=($(compgen -W "$commands $globals" -- "$cur"))
      return
      ;;
    help) options="$commands" ;;
    config) options="--server --user --key --secret --device-id --reveal" ;;
    settings) options="get set max-items autodelete max-bitrate last-sync verbose" ;;
    subscribe) options="--max-items --autodelete --max-bitrate" ;;
    unsubscribe) options="--all" ;;
    sync) options="--since --force --watch --watch-timeout" ;;
    items) options="--feed" ;;
    publish)
      options="--title --desc --url --stream-url --content-size --duration --content-type"
      ;;
    wake) options="push fetch --no-sync --watch" ;;
    demo) options="--server-program --folder --link-rate" ;;
  esac
  COMPREPLY=($(compgen -W "$options $globals" -- "$cur"))
}
complete -F _zsm zsm
