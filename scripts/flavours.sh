# The two builds of the player, sourced by the other scripts:
#   webengine  Qt 6 + QtWebEngine (the default), Debian 12 and 13
#   webkit     Qt 5.15 + QtWebKit, Debian 12 only: Debian 13 no longer ships QtWebKit
# chosen with VORSANE_WEB_ENGINE (webengine, webkit, or both where a script builds several).

# Prints the code name of a Debian release given as a name or a number; empty: this machine's.
debian_codename() {
    local r=${1:-}
    if [ -z "$r" ]; then
        r=$(. /etc/os-release && echo "${VERSION_CODENAME:-${VERSION_ID:-unknown}}")
    fi
    case $r in
        12 | bookworm) echo bookworm ;;
        13 | trixie) echo trixie ;;
        *) echo "$r" ;;
    esac
}

# Prints "Debian 12" or "Debian 13" for a code name, else the code name.
debian_name() {
    case $1 in
        bookworm) echo "Debian 12" ;;
        trixie) echo "Debian 13" ;;
        *) echo "$1" ;;
    esac
}

# Prints the flavours that WHAT (webengine, webkit, both; empty: DEFAULT) stands for on the Debian
# release RELEASE, on one line; says why and fails when one of them cannot be built there.
#   flavours_for WHAT RELEASE [DEFAULT]
flavours_for() {
    local what=${1:-${3:-webengine}} release=$2 list
    case $what in
        webengine | webkit) list=$what ;;
        both) list="webengine webkit" ;;
        *)
            echo "Unknown web engine flavour '$what': webengine, webkit or both." >&2
            return 1
            ;;
    esac
    if [[ " $list " == *" webkit "* ]] && [ "$release" != bookworm ]; then
        echo "The webkit flavour (Qt 5 + QtWebKit) builds on Debian 12 (bookworm) only:" \
            "$(debian_name "$release") has no QtWebKit. Use the webengine flavour." >&2
        return 1
    fi
    echo $list
}

# Chromium's sandbox refuses to run as root, so root runs (CI, a container) turn it off for that
# run only; the program never does it by itself.
sandbox_off_for_root() {
    if [ "$(id -u)" -eq 0 ] && [ -z "${QTWEBENGINE_DISABLE_SANDBOX:-}" ]; then
        export QTWEBENGINE_DISABLE_SANDBOX=1
        echo "Running as root: the web engine's sandbox is off for this run (QTWEBENGINE_DISABLE_SANDBOX=1)."
    fi
}

# True when the source tree in the current folder has both flavours: the build option and the
# QtWebEngine classes. Trees without them build only the Qt 5 + QtWebKit one, whatever
# VORSANE_WEB_ENGINE says.
tree_has_flavours() {
    [ -f browser/ui/widgets/webengine/webview.cpp ] \
        && grep -rqs --include=CMakeLists.txt --exclude-dir='build*' VORSANE_WEB_ENGINE .
}
