# Sourced by the scripts that run GStreamer (tests, demo, benchmarks): one plugin
# registry inside the build tree, made up front by a plain gst-inspect-1.0, so that
# no process depends on the user's cache and none scans every plugin itself (a scan
# loads plugins a call never uses, and their process-wide state).
#   . scripts/gst-env.sh BUILD_DIR     (a GST_REGISTRY already set is kept)
zarnrtc_gst_env() {
  local dir=$1
  if [ -z "${GST_REGISTRY:-}" ]; then
    mkdir -p "$dir"
    GST_REGISTRY="$(cd "$dir" && pwd)/gst-registry.bin"
    export GST_REGISTRY
  fi
  if [ ! -s "$GST_REGISTRY" ]; then
    GST_REGISTRY_FORK=yes gst-inspect-1.0 >/dev/null 2>&1 || true
  fi
  [ -s "$GST_REGISTRY" ] || { echo "gst-env: could not build $GST_REGISTRY" >&2; return 1; }
}
zarnrtc_gst_env "${1:?build directory}"
