#!/usr/bin/env bash
# Makes an archive and an npm package of the programs that scripts/portable.sh has built in
# folder $1. Both contain the licences, and a list of the sources with their versions.
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1
version=$(sed -n 's/^project(lumora-video VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
name=lumora-video-$version-linux-x64
content=$build/content
packages=$build/packages
rm -rf "$content" "$packages"
mkdir -p "$content/licences" "$packages"

install -m 755 "$build/lumora-video" "$build/lumora-recover" "$content/"
install -m 644 LICENSE "$content/licences/lumora-video.txt"
install -m 644 /usr/share/common-licenses/GPL-3 "$content/licences/GPL-3.txt"
install -m 644 /usr/share/common-licenses/Apache-2.0 "$content/licences/Apache-2.0.txt"
for part in ffmpeg x264 highway; do
  install -m 644 "$build/sources/$part"-*/debian/copyright "$content/licences/$part.txt"
done
for package in libyuv-dev libjpeg62-turbo-dev libboost1.74-dev nlohmann-json3-dev libffmpeg-nvenc-dev libstdc++-12-dev; do
  install -m 644 "/usr/share/doc/$package/copyright" "$content/licences/${package%-dev}.txt"
done

commit=$(git describe --always --dirty --abbrev=40 --exclude="*")
{
  echo "lumora-video $version, commit $commit, as programs for x86-64 Linux with glibc 2.36 or newer."
  echo
  echo "They are linked with FFmpeg and x264 (GPL, version 2 or later) and Highway (Apache-2.0), so they are"
  echo "distributed under the GPL, version 3 or later (licences/GPL-3.txt). The licences of all parts lie in"
  echo "licences/. To build these programs, run \"make portable\" in the source tree of lumora-video. It uses"
  echo "Debian 12's source packages of FFmpeg, x264 and Highway, and its binary packages of all other parts:"
  echo
  for part in ffmpeg x264 highway; do
    echo "  $part $(dpkg-parsechangelog -l "$build/sources/$part"-*/debian/changelog -S Version)"
  done
  dpkg-query -W -f '  ${Package} ${Version} (source ${source:Package} ${source:Version})\n' \
    libyuv-dev libjpeg62-turbo-dev libboost1.74-dev nlohmann-json3-dev libffmpeg-nvenc-dev libstdc++-12-dev g++-12 nasm
  echo
  echo "Encoders: libx264, h264_nvenc, h264_v4l2m2m. Those of VAAPI and Quick Sync are in the Debian"
  echo "package lumora-video."
} >"$content/SOURCES.txt"

# The same content makes the same archive.
epoch=$(dpkg-parsechangelog -l packaging/changelog -S Timestamp)
tar --create --sort=name --mtime="@$epoch" --owner=0 --group=0 --numeric-owner --mode=u+rw,go=rX \
  --transform="s,^\.,$name," -C "$content" . | gzip -9 -n >"$packages/$name.tar.gz"

cat >"$content/package.json" <<END
{
  "name": "lumora-video-linux-x64",
  "version": "$version",
  "description": "The lumora-video encoder helper for x86-64 Linux with glibc",
  "author": "the lumora-video authors",
  "license": "GPL-3.0-or-later",
  "reports": "Report problems to whoever gave you this package. Report vulnerabilities in private.",
  "os": ["linux"],
  "cpu": ["x64"],
  "libc": ["glibc"],
  "main": "index.js",
  "files": ["lumora-video", "lumora-recover", "index.js", "SOURCES.txt", "licences"]
}
END
cat >"$content/index.js" <<'END'
'use strict';
// A program cannot run inside Electron's archive, so the packager puts it into a folder beside the archive.
const inside = /([\\/])app\.asar([\\/])/;
exports.path = require('node:path').join(__dirname, 'lumora-video').replace(inside, '$1app.asar.unpacked$2');
END
(cd "$content" && npm pack --silent --pack-destination "$packages" >/dev/null)
ls -l "$packages"
