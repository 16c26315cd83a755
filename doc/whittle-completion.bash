# bash completion for whittle                                -*- shell-script -*-
#
# Options as whittle's usage text writes them (matched without regard to letter case,
# as whittle itself matches them); products and factory variants after --product and
# --factory, asked of the whittle being completed; folders and disk images for the
# source; folders, zip archives, disk images and BOMs for the target.

_whittle_options="--help --source --target --product --factory
  --stripDebug --keepDebug --stripFWPKs --keepFWPKs --stripBundleImages --keepBundleImages
  --stripHomeDiags --keepHomeDiags --stripSDK --keepSDK --stripDevFirmware --keepDevFirmware
  --stripAPFirmware --keepAPFirmware --stripDebugFirmware --keepDebugFirmware
  --noSymLinks --noCookie --ov --legacy --personalized --unpersonalized --dryrun --verbose
  --encrypt --knownproducts --knownvariants --validVariants --validProducts"

# Options that take the next word as their value.
_whittle_value_options=" --source --target --product --factory --personalized --unpersonalized "

# The words of $2 that begin with $1, without regard to letter case, one per line.
_whittle_matching() {
    local prefix=${1,,} word
    for word in $2; do
        [[ ${word,,} == "$prefix"* ]] && printf '%s\n' "$word"
    done
}

# The strings of an XML property list array, separated by blanks.
_whittle_plist_strings() {
    sed -n 's:.*<string>\(.*\)</string>.*:\1:p'
}

# Asks the whittle being completed for its catalogue's products (--knownproducts) or
# factory variants (--knownvariants); --legacy earlier on the line selects the older
# engine's catalogue, as it does when whittle runs.
_whittle_catalogue() {
    local program=${COMP_WORDS[0]} legacy=() i
    program=${program/#\~/$HOME}
    for ((i = 1; i < COMP_CWORD; i++)); do
        [[ ${COMP_WORDS[i],,} == --legacy ]] && legacy=(--legacy)
    done
    "$program" "${legacy[@]}" "$1" 2>/dev/null </dev/null | _whittle_plist_strings
}

# Completes $cur with folders and with files whose extension is one of $1 ("dmg|zip").
_whittle_paths() {
    local extensions=$1 path
    local -a found=()
    while IFS= read -r path; do found+=("$path"); done < <(compgen -d -- "$cur")
    while IFS= read -r path; do
        [[ -d $path ]] && continue
        [[ ${path##*.} =~ ^($extensions)$ ]] && found+=("$path")
    done < <(compgen -f -- "$cur")
    compopt -o filenames 2>/dev/null
    COMPREPLY=("${found[@]}")
}

# How many source/target words stand before the current one.
_whittle_positional_count() {
    local count=0 i word
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i],,}
        if [[ $_whittle_value_options == *" $word "* ]]; then
            [[ $word == --source || $word == --target ]] && ((count++))
            ((i++))
        elif [[ $word != -* ]]; then
            ((count++))
        fi
    done
    echo "$count"
}

_whittle() {
    local cur=${COMP_WORDS[COMP_CWORD]} previous=
    ((COMP_CWORD > 0)) && previous=${COMP_WORDS[COMP_CWORD - 1],,}
    COMPREPLY=()
    case $previous in
        --product)
            mapfile -t COMPREPLY < <(_whittle_matching "$cur" "$(_whittle_catalogue --knownproducts)")
            return ;;
        --factory)
            mapfile -t COMPREPLY < <(_whittle_matching "$cur" "$(_whittle_catalogue --knownvariants)")
            return ;;
        --personalized | --unpersonalized)
            mapfile -t COMPREPLY < <(_whittle_matching "$cur" "on off")
            return ;;
        --source)
            _whittle_paths "[dD][mM][gG]"
            return ;;
        --target)
            _whittle_paths "zip|dmg|bom"
            return ;;
    esac
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(_whittle_matching "$cur" "$_whittle_options")
        return
    fi
    case $(_whittle_positional_count) in
        0) _whittle_paths "[dD][mM][gG]" ;;
        1) _whittle_paths "zip|dmg|bom" ;;
    esac
}

complete -F _whittle whittle
