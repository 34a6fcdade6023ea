#!/bin/sh
# Installs the npm packages of the web monitor (examples/web-monitor: the browser
# SIP library) and of the browser test (tests/browser: puppeteer-core, driving the
# system's Chromium), exactly as their lock files say. npm's cache stays in the
# build tree, never in the home folder; no browser is ever downloaded.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
if ! command -v npm >/dev/null 2>&1; then
  echo "npm-deps: npm is missing (scripts/setup-deps.sh all installs it)" >&2
  exit 1
fi
export npm_config_cache="${ZARNRTC_NPM_CACHE:-$root/build/npm-cache}"
export npm_config_update_notifier=false npm_config_fund=false npm_config_audit=false
export PUPPETEER_SKIP_DOWNLOAD=1
for dir in examples/web-monitor tests/browser; do
  stamp="$root/$dir/node_modules/.installed-lock"
  # Already installed from this very lock file: nothing to do.
  if [ -f "$stamp" ] && cmp -s "$root/$dir/package-lock.json" "$stamp"; then continue; fi
  echo "npm-deps: npm ci in $dir"
  (cd "$root/$dir" && npm ci --no-audit --no-fund --loglevel=error)
  cp "$root/$dir/package-lock.json" "$stamp"
done
