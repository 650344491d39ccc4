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
    --client-id | --color | --host-name | --issuer | --limit | --listen | --port | --timeout | --token-file | --update-unit | --wait) return ;;
  esac
  case $command in
    '') words='check download install update remove status info history doctor codecs web plugins account recover help -h --help -V --version --json --color' ;;
    account) words='sign-in sign-out status -h --help' ;;
    check) words='-h --help --json --color -v --verbose -q --quiet --wait' ;;
    download) words='-h --help --json --color -v --verbose -q --quiet --wait' ;;
    install) words='-h --help --json --color -v --verbose -q --quiet --wait' ;;
    update) words='-h --help --json --color -v --verbose -q --quiet --wait --reinstall' ;;
    remove) words='-h --help --json --color -v --verbose -q --quiet --wait' ;;
    status) words='-h --help --json --color -v --verbose --watch' ;;
    info) words='-h --help --json --color -v --verbose' ;;
    history) words='-h --help --json --color -v --verbose --limit --no-pager' ;;
    doctor) words='-h --help --json --color -v --verbose' ;;
    codecs) words='-h --help --json --color -v --verbose' ;;
    web) words='-h --help --json --color -v --verbose --listen --port --token-file --host-name --update-unit' ;;
    plugins) words='-h --help --json --color -v --verbose --wait' ;;
    'account sign-in') words='-h --help --json --color -v --verbose --issuer --client-id --port --timeout --replace' ;;
    'account sign-out') words='-h --help --json --color -v --verbose' ;;
    'account status') words='-h --help --json --color -v --verbose' ;;
    recover) words='-h --help --json --color -v --verbose -q --quiet --wait' ;;
    help) words='check download install update remove status info history doctor codecs web plugins account recover help -h --help' ;;
    *) return ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _packctl packctl
