#!/usr/bin/env bash
# Builds lumora-video and lumora-recover, each as one program that needs only glibc 2.36. Packs them into an
# archive and an npm package in build/portable/packages.
#
# FFmpeg, x264 and Highway are built from Debian's source packages, with only the parts that are used.
# The build is reproducible: the same sources and the same Debian packages make the same programs,
# in any folder.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${1:-2}
if [ "$(. /etc/os-release && echo "${VERSION_CODENAME:-}") $(uname -m)" != "bookworm x86_64" ]; then
  echo "Run 'make portable' on Debian 12 for x86-64. What is built there also runs on newer systems." >&2
  echo "On other systems run, as root: KEEP=build/portable/packages KEEP_TO=portable scripts/fresh.sh 'make portable'" >&2
  exit 1
fi
npm=(); command -v npm >/dev/null || npm=(nodejs npm)
scripts/install_dependencies.sh nasm dpkg-dev file libffmpeg-nvenc-dev "${npm[@]}"

build=$PWD/build/portable
sources=$build/sources
stage=$build/stage
rm -rf "$build"
mkdir -p "$sources" "$stage"

# Downloads source packages from the same places as the system's packages.
fetchSources() {
  local apt=$build/apt
  mkdir -p "$apt/parts" "$apt/lists/partial"
  for list in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -e "$list" ] && sed -n 's/^deb /deb-src /p' "$list" >"$apt/parts/$(basename "$list" .list).list"
  done
  for list in /etc/apt/sources.list.d/*.sources; do
    [ -e "$list" ] && sed 's/^Types:.*/Types: deb-src/' "$list" >"$apt/parts/$(basename "$list")"
  done
  local options=(-qq -o Dir::Etc::sourcelist=/dev/null -o Dir::Etc::sourceparts="$apt/parts"
    -o Dir::State::lists="$apt/lists" -o APT::Sandbox::User=root)
  apt-get "${options[@]}" update
  (cd "$sources" && apt-get "${options[@]}" source ffmpeg x264 highway >/dev/null)
}

sourceFolder() {
  echo "$sources/$1"-*/
}

# With these flags, the linker can remove unused code.
sections="-ffunction-sections -fdata-sections"
# The program must not contain the path of the build. x264 and FFmpeg need no flag for this: they
# are compiled with relative paths.
ourFlags="-O2 $sections -ffile-prefix-map=$PWD=."
export PKG_CONFIG_SYSROOT_DIR=$stage
export PKG_CONFIG_LIBDIR=$stage/usr/lib/pkgconfig:/usr/lib/x86_64-linux-gnu/pkgconfig:/usr/share/pkgconfig

buildX264() (
  cd "$(sourceFolder x264)"
  ./configure --prefix=/usr --enable-static --enable-pic --disable-cli --disable-opencl --bit-depth=8 \
    --chroma-format=420 --disable-avs --disable-swscale --disable-lavf --disable-ffms --disable-gpac \
    --disable-lsmash --extra-cflags="$sections"
  make -j "$jobs" lib-static
  make install-lib-static DESTDIR="$stage"
)

buildFFmpeg() (
  cd "$(sourceFolder ffmpeg)"
  ./configure --prefix=/usr --disable-everything --disable-autodetect --disable-programs --disable-doc \
    --disable-network --disable-avdevice --disable-avfilter --disable-avformat --disable-swscale \
    --disable-postproc --disable-debug --enable-gpl --enable-libx264 \
    --enable-ffnvcodec --enable-nvenc --enable-v4l2-m2m \
    --enable-encoder=aac,libx264,h264_nvenc,h264_v4l2m2m --enable-pic --pkg-config-flags=--static \
    --extra-cflags="$sections"
  make -j "$jobs"
  make install DESTDIR="$stage"
)

buildHighway() (
  cmake -S "$(sourceFolder highway)" -B "$build/highway" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib -DBUILD_SHARED_LIBS=OFF \
    -DBUILD_TESTING=OFF -DHWY_ENABLE_TESTS=OFF -DHWY_ENABLE_EXAMPLES=OFF -DHWY_ENABLE_CONTRIB=OFF \
    -DCMAKE_POSITION_INDEPENDENT_CODE=ON -DCMAKE_CXX_FLAGS="$ourFlags"
  cmake --build "$build/highway" -j "$jobs"
  DESTDIR=$stage cmake --install "$build/highway"
)

buildProgram() {
  cmake -S . -B "$build/program" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
    -DCMAKE_CXX_FLAGS_RELEASE="-DNDEBUG $ourFlags" -DPKG_CONFIG_ARGN=--static \
    -DYUV_LIBRARY=/usr/lib/x86_64-linux-gnu/libyuv.a -DJPEG_LIBRARY=/usr/lib/x86_64-linux-gnu/libjpeg.a \
    -DCMAKE_EXE_LINKER_FLAGS="-static-libstdc++ -static-libgcc -Wl,--gc-sections,--build-id=none"
  cmake --build "$build/program" -j "$jobs" -t lumora-video lumora-recover
  for program in lumora-video lumora-recover; do
    strip -o "$build/$program" "$build/program/src/$program"
  done
}

trap 'status=$?; [ "$status" -eq 0 ] || tail -n 40 "$build/log"' EXIT
for step in fetchSources buildX264 buildFFmpeg buildHighway buildProgram; do
  echo "== $step"
  $step >"$build/log" 2>&1
done
trap - EXIT
scripts/check_portable.sh "$build/lumora-video"
scripts/check_portable.sh "$build/lumora-recover"
scripts/pack_portable.sh "$build"
