# Sourced by the tools, with `top` set to the project's folder: says in KR_BUILD_ROOT where builds go, one folder for
# each preset. That is build/ in the tree; for a tree that can't be written to, a folder in the user's cache. The
# environment may name another.

if [ -z "${KR_BUILD_ROOT:-}" ]; then
  KR_BUILD_ROOT=$top/build
  if ! { mkdir -p "$KR_BUILD_ROOT" 2>/dev/null && [ -w "$KR_BUILD_ROOT" ]; }; then
    KR_BUILD_ROOT=${XDG_CACHE_HOME:-${HOME:-/var/tmp}/.cache}/krsdnhal/$(printf %s "$top" | cksum | cut -d ' ' -f 1)
  fi
fi
mkdir -p "$KR_BUILD_ROOT" || exit 1
export KR_BUILD_ROOT
