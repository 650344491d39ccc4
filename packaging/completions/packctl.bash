# shellcheck shell=bash
# Completes the command line of packctl. Made by packaging/generate.py: change what it is made from.

_packctl() {
  local word command='' words
  COMPREPLY=()
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $word in
      -*) continue ;;
    esac
    command+=${command:+ }$word
    case $command in
      account) ;;
      *) break ;;
    esac
  done
  case ${COMP_WORDS[COMP_CWORD - 1]} in
    --client-id | --host-name | --issuer | --limit | --listen | --port | --timeout | --token-file | --update-unit) return ;;
  esac
  case $command in
    '') words='check download install update remove status info history doctor codecs web plugins account recover help -h --help -V --version --json' ;;
    account) words='sign-in sign-out status -h --help' ;;
    check) words='-h --help --json -v --verbose' ;;
    download) words='-h --help --json -v --verbose' ;;
    install) words='-h --help --json -v --verbose' ;;
    update) words='-h --help --json -v --verbose' ;;
    remove) words='-h --help --json -v --verbose' ;;
    status) words='-h --help --json --watch' ;;
    info) words='-h --help --json' ;;
    history) words='-h --help --json --limit --no-pager' ;;
    doctor) words='-h --help --json' ;;
    codecs) words='-h --help --json' ;;
    web) words='-h --help --json --listen --port --token-file --host-name --update-unit' ;;
    plugins) words='-h --help --json' ;;
    'account sign-in') words='-h --help --json --issuer --client-id --port --timeout --replace' ;;
    'account sign-out') words='-h --help --json' ;;
    'account status') words='-h --help --json' ;;
    recover) words='-h --help --json -v --verbose' ;;
    help) words='check download install update remove status info history doctor codecs web plugins account recover help -h --help' ;;
    *) return ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _packctl packctl
