# Shared steps of scripts/test and scripts/demo: packages, build, Wine prefix.
# Sourced, not run; expects OMK_ROOT to be the repository root.

OMK_BUILD_DIR=${OMK_BUILD_DIR:-$OMK_ROOT/build}
OMK_PREFIX=$OMK_BUILD_DIR/wineprefix
OMK_PACKAGES=(mingw-w64 mingw-w64-tools libwine-dev wine64 wine cmake googletest osslsigncode openssl sqlite3 xz-utils dpkg-dev tcl make gcc msitools wixl libcli11-dev nlohmann-json3-dev)

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

# SQLite for the target: the amalgamation made from Debian's sqlite3 source
# package, kept in the build folder so later runs and CI reuse it. The deb-src
# list is made from the machine's own deb entries in a scratch folder; the
# machine's apt configuration and package lists are left as they were.
OMK_SQLITE_DIR=$OMK_BUILD_DIR/third_party/sqlite
omk_fetch_sqlite() {
    [ -f "$OMK_SQLITE_DIR/sqlite3.c" ] && [ -f "$OMK_SQLITE_DIR/sqlite3.h" ] && return 0
    omk_log "fetching and preparing the sqlite3 source package"
    local work src f
    work=$(mktemp -d)
    mkdir -p "$work/sources" "$work/lists/partial" "$work/get"
    for f in /etc/apt/sources.list.d/*.sources; do
        [ -f "$f" ] || continue
        sed -e 's/^Types:.*/Types: deb-src/' "$f" >"$work/sources/$(basename "$f")"
    done
    if [ -f /etc/apt/sources.list ]; then
        sed -n -e 's/^deb \(.*\)/deb-src \1/p' /etc/apt/sources.list >"$work/sources/from-sources-list.list"
    fi
    local apt_opts=(-o "Dir::Etc::sourcelist=$work/none.list" -o "Dir::Etc::sourceparts=$work/sources"
        -o "Dir::State::Lists=$work/lists" -o "Dir::Cache::pkgcache=" -o "Dir::Cache::srcpkgcache=")
    if ! apt-get "${apt_opts[@]}" update -qq >"$work/update.log" 2>&1 ||
        ! (cd "$work/get" && apt-get "${apt_opts[@]}" source --download-only -qq sqlite3 >"$work/source.log" 2>&1); then
        cat "$work"/*.log >&2
        rm -rf "$work"
        echo "could not fetch the sqlite3 source package" >&2
        return 1
    fi
    (cd "$work/get" && dpkg-source --no-check -x ./*.dsc src >"$work/extract.log" 2>&1) || {
        cat "$work/extract.log" >&2
        rm -rf "$work"
        return 1
    }
    src=$work/get/src
    if ! (cd "$src" && ./configure --disable-tcl >"$work/configure.log" 2>&1 && make sqlite3.c >"$work/make.log" 2>&1); then
        tail -n 40 "$work/configure.log" "$work/make.log" >&2
        rm -rf "$work"
        echo "could not make the sqlite3 amalgamation" >&2
        return 1
    fi
    mkdir -p "$OMK_SQLITE_DIR"
    cp "$src/sqlite3.c" "$src/sqlite3.h" "$OMK_SQLITE_DIR/"
    basename "$work"/get/*.dsc .dsc >"$OMK_SQLITE_DIR/VERSION"
    rm -rf "$work"
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
