#!/usr/bin/env bash
# Collects the program's user-visible texts from the sources into translations/browser_<locale>.ts
# (new texts are added untranslated, texts gone from the code are marked obsolete). Translate them
# with Qt Linguist (`/usr/lib/qt6/bin/linguist translations/browser_fr_FR.ts`, or Qt 5's
# `linguist`); the build turns each .ts into the .qm the program loads. Give locale names (e.g.
# de_DE) to start new languages.
set -euo pipefail
cd "$(dirname "$0")/.."
# Qt 6's lupdate is not on PATH; Qt 5's (through qtchooser) is, and writes the same files.
lupdate=/usr/lib/qt6/bin/lupdate
[ -x "$lupdate" ] || lupdate=$(command -v lupdate) || { bash scripts/install-deps.sh; lupdate=/usr/lib/qt6/bin/lupdate; }

shopt -s nullglob
files=(translations/browser_*.ts)
for locale in "$@"; do
    files+=("translations/browser_$locale.ts")
done
if [ ${#files[@]} -eq 0 ]; then
    echo "No translation yet: give a locale name, e.g. $0 fr_FR" >&2
    exit 1
fi
# The remote page's "{{text}}" markers are translated by the server under the context
# "RemotePage"; lupdate reads no HTML, so they are handed to it as C++.
page_texts=$(mktemp -d)
trap 'rm -rf "$page_texts"' EXIT
grep -o '{{[^}]*}}' remoteserver/remote.html | sort -u | sed 's/^{{\(.*\)}}$/\1/; s/\\/\\\\/g; s/"/\\"/g' \
    | sed 's/.*/QT_TRANSLATE_NOOP("RemotePage", "&")/' >"$page_texts/remotepage.cpp"
# Without source locations, so that code edits elsewhere do not churn the .ts files.
"$lupdate" -recursive -locations none -extensions cpp,h common browser remoteserver \
    "$page_texts/remotepage.cpp" -ts "${files[@]}"
