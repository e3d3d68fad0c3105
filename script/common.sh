# Shared by the scripts, which source it from the root of the tree.

jobs=$(nproc 2>/dev/null || echo 2)

# How we build, and users do not: a warning of a compiler newer than ours would be their end.
ours=(-DKOR_BUILD_TESTS=ON -DCMAKE_COMPILE_WARNING_AS_ERROR=ON)

# help_asked ARGUMENT...: whether one of them asks for help. Asked before anything is installed or built.
help_asked() {
  local argument
  for argument in "$@"; do
    if [[ $argument == -h || $argument == --help ]]; then
      return 0
    fi
  done
  return 1
}

# print_header FILE: the comment at the top of a script, which explains it.
print_header() {
  sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$1"
}

# locked DIR COMMAND...: one at a time per build folder, so that two scripts started at once do not build over each other.
locked() {
  local folder=$1
  shift
  mkdir -p "$folder"
  flock "$folder/.lock" "$@"
}

# configure DIR [CMAKE OPTION...]: sets a build folder up. A second call with the same options costs next to nothing.
configure() {
  local folder=$1
  shift
  local options=(-G Ninja "${ours[@]}" "$@")
  if command -v ccache >/dev/null; then
    options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  mkdir -p "$folder"
  locked "$folder" cmake -S . -B "$folder" "${options[@]}" >"$folder/configure.log" 2>&1 || {
    cat "$folder/configure.log" >&2
    return 1
  }
}

# build DIR [TARGET...]: builds everything, or the targets named.
build() {
  local folder=$1
  shift
  local targets=()
  [ $# -gt 0 ] && targets=(--target "$@")
  locked "$folder" cmake --build "$folder" --parallel "$jobs" "${targets[@]}"
}

# run_tests DIR [CTEST OPTION...]: the runner's own summary comes last.
run_tests() {
  local folder=$1
  shift
  ctest --test-dir "$folder" --output-on-failure --no-tests=error --parallel "$jobs" "$@" </dev/null
}
