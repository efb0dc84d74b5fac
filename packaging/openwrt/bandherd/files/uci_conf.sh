# shellcheck shell=dash
# The router's UCI configuration of bandherd turned into the daemon's
# key=value file. Sourced by /etc/init.d/bandherd.
#
# A section's type is the prefix of its keys: every option of a "bandherd"
# section becomes bandherd.<option>=<value>, every option of a "weft" section
# weft.<option>=<value>. A list becomes one line, its items joined by ",".
# Keys that UCI cannot name (a "." inside, as in bandherd.rssi.5to6) are
# given whole in a "set" list: list set 'bandherd.rssi.5to6=-80,0;1;...'.
# A value that spans lines is left out (the daemon reads one line per key).

# bandherd_uci_conf [CONFIG]: prints the key=value lines of CONFIG (bandherd).
bandherd_uci_conf() {
	local config="${1:-bandherd}" line path value item section option types=" "

	uci -q show "$config" | while IFS= read -r line; do
		case "$line" in
		"$config".*=*) ;;
		*) continue ;;  # the rest of a value that spans lines
		esac
		path="${line%%=*}"
		path="${path#"$config".}"
		value="${line#*=}"
		case "$path" in
		*.*) ;;
		*)	# a section, "<name>=<type>"
			types="$types$path=$value "
			continue ;;
		esac
		section="${path%%.*}"
		option="${path#*.}"
		# uci quotes a value, and each item of a list, in single quotes.
		if ! (eval "set -- $value") 2>/dev/null; then
			echo "bandherd: $config.$path spans lines, left out" >&2
			continue
		fi
		eval "set -- $value"
		if [ "$option" = set ]; then
			for item in "$@"; do
				printf '%s\n' "$item"
			done
			continue
		fi
		value="$1"
		shift
		for item in "$@"; do
			value="$value,$item"
		done
		case "$types" in
		*" $section="*)
			section="${types#*" $section="}"
			printf '%s.%s=%s\n' "${section%% *}" "$option" "$value" ;;
		esac
	done
}

# bandherd_conf_enabled FILE: true when the last bandherd.enable line of FILE
# holds a non-zero number (decimal, 0x hex or 0 octal, as the daemon reads it).
bandherd_conf_enabled() {
	local value
	value="$(sed -n 's/^[[:blank:]]*bandherd\.enable[[:blank:]]*=[[:blank:]]*//p' "$1" | tail -n 1)"
	case "$value" in
	""|*[!0-9a-fA-FxX+-]*) return 1 ;;
	esac
	value="$(printf '%d' "$value" 2>/dev/null)" && [ "$value" != 0 ]
}
