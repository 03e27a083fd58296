# Shared steps of scripts/test and scripts/demo: packages, build, Wine prefix.
# Sourced, not run; expects OMK_ROOT to be the repository root.

OMK_BUILD_DIR=${OMK_BUILD_DIR:-$OMK_ROOT/build}
OMK_PREFIX=$OMK_BUILD_DIR/wineprefix
OMK_PACKAGES=(mingw-w64 mingw-w64-tools libwine-dev wine64 wine cmake googletest osslsigncode openssl sqlite3 xz-utils dpkg-dev)

omk_log() { printf '==> %s\n' "$*"; }

# Installs only what is missing; apt-get update runs at most once.
omk_install_packages() {
    local missing=() p
    for p in "${OMK_PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "missing packages: ${missing[*]} (run as root to install them)" >&2
        return 1
    fi
    omk_log "installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

omk_build() {
    omk_log "configuring and building in $OMK_BUILD_DIR"
    cmake -S "$OMK_ROOT" -B "$OMK_BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_TOOLCHAIN_FILE="$OMK_ROOT/cmake/mingw-w64-x86_64.cmake" >/dev/null
    cmake --build "$OMK_BUILD_DIR" -j "$(nproc)"
}

omk_wine_env() {
    export WINEPREFIX=$OMK_PREFIX
    export WINEDEBUG=${WINEDEBUG:--all}
    # No Mono or Gecko install prompts in a headless prefix.
    export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml=}
    export WINEARCH=win64
}

# Creates the private prefix once; later runs reuse it.
omk_prepare_prefix() {
    omk_wine_env
    if [ ! -f "$OMK_PREFIX/system.reg" ]; then
        omk_log "creating Wine prefix $OMK_PREFIX"
        wineboot -i >/dev/null 2>&1 || true
        wineserver -w
    fi
}

OMK_STARTED_WINESERVER=0
omk_start_wineserver() {
    omk_wine_env
    wineserver -p 2>/dev/null || true  # already running for this prefix is fine
    OMK_STARTED_WINESERVER=1
    # Wine's own services start with the first program; start them here, so
    # that they do not inherit (and hold open) the output pipe of a test.
    wine cmd /c exit </dev/null >/dev/null 2>&1 || true
}

omk_stop_wineserver() {
    if [ "$OMK_STARTED_WINESERVER" = 1 ]; then
        omk_wine_env
        wineserver -k 2>/dev/null || true
        OMK_STARTED_WINESERVER=0
    fi
}
