# Sourced by ./dev and its scripts.
root=$(dirname "$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")")

if command -v ccache >/dev/null; then
  export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER:-ccache}
  export CMAKE_C_COMPILER_LAUNCHER=${CMAKE_C_COMPILER_LAUNCHER:-ccache}
  # Without this it keeps nothing that is compiled with a precompiled header, as the tests are.
  export CCACHE_SLOPPINESS=${CCACHE_SLOPPINESS:-pch_defines,time_macros}
fi

# One job per processor, but only as many as the memory carries: a file that includes Boost's queue
# can take 1.2 GiB to compile.
job_count() {
  local kib limit by_memory by_cpu
  kib=$(awk '/^MemAvailable:/ { print $2 }' /proc/meminfo)
  limit=$(cat /sys/fs/cgroup/memory.max 2>/dev/null || echo max)
  if [[ $limit != max ]] && ((limit / 1024 < kib)); then
    kib=$((limit / 1024))
  fi
  by_memory=$((kib / 1258291))
  by_cpu=$(nproc)
  echo $((by_memory < 1 ? 1 : by_memory < by_cpu ? by_memory : by_cpu))
}

configure() { # PRESET [CMAKE'S ARGUMENT...]
  cmake -S "$root" --preset "$1" --log-level=WARNING "${@:2}" >/dev/null
}

build() { # PRESET [TARGET...]
  local preset=$1
  shift
  configure "$preset"
  cmake --build "$root/build/$preset" --parallel "$(job_count)" ${1:+--target "$@"}
}

# The project's files that match, tracked or new, each ended by a zero byte. In CI the tree may
# belong to another user, which git has to be told is all right.
project_files() { # PATTERN...
  local file
  git -c safe.directory="$root" -C "$root" \
    ls-files -z --cached --others --exclude-standard --deduplicate -- "$@" |
    while IFS= read -r -d '' file; do
      if [[ -f $root/$file ]]; then
        printf '%s\0' "$root/$file"
      fi
    done
  return "${PIPESTATUS[0]}"
}
