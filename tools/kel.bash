# Completion of the kel command for bash.
_kel() {
  local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]}
  local coding='--lossless --quality --tile --levels --no-colour-transform --roi'
  local files='--output-dir --jobs --quiet --verbose --help'
  local options=
  COMPREPLY=()
  if [ "$COMP_CWORD" -eq 1 ]; then
    mapfile -t COMPREPLY < <(compgen -W 'encode decode info preview compare --help --version' -- "$word")
    return
  fi
  case $previous in
    --order) options='rlcp cprl' ;;
    --rotate) options='90 180 270' ;;
    --format) options='png ppm pgm pbm pam tif jpg' ;;
    --output-dir) mapfile -t COMPREPLY < <(compgen -d -- "$word"); return ;;
    --quality|-q|--tile|--levels|--size|--layers|--comment|--resolution|--reduce|--bits|--max-memory|--jobs|-j)
      return ;;
  esac
  if [ -n "$options" ]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
    return
  fi
  case $word in
    -*)
      case ${COMP_WORDS[1]} in
        encode) options="$coding $files --size --order --layers --comment --resolution" ;;
        decode) options="$files --reduce --rotate --bits --raw-planes --format --max-memory --strict" ;;
        preview) options="$coding $files" ;;
        info) options='--json --help' ;;
        compare) options='--jobs --help' ;;
      esac
      mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
      ;;
    *)
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      ;;
  esac
}
complete -o filenames -F _kel kel
