#!/usr/bin/env bash
# Builds what a user unpacks: package.sh windows|linux leaves one archive in dist/, to be unpacked
# into a folder of its own.
set -euo pipefail
cd "$(dirname "$0")/.."

case ${1:-} in
  windows)
    preset=windows packages=windows archive=orb-qwen35-windows-x64.zip
    strip=x86_64-w64-mingw32-strip program=orb.exe
    libraries=(liborb_runtime_qwen35.dll liborb_eval.dll)
    ;;
  linux)
    preset=release packages='' archive=orb-qwen35-linux-x64.tar.gz
    strip=strip program=orb
    libraries=(liborb_runtime_qwen35.so liborb_eval.so)
    ;;
  *)
    echo "usage: package.sh windows|linux" >&2
    exit 2
    ;;
esac

scripts/bootstrap.sh $packages
build=build/$preset
# Tests and benchmarks, which need more packages, join when they are asked for.
[[ -f $build/build.ninja ]] ||
  cmake --preset "$preset" -DORB_BUILD_TESTS=OFF -DORB_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build --preset "$preset" --target orb

folder=dist/${archive%%.*}
rm -rf "$folder" "dist/$archive"
mkdir -p "$folder/include" "$folder/models"
for file in "${libraries[@]}" "$program"; do
  "$strip" --strip-unneeded -o "$folder/$file" "$build/bin/$file"
done
if [[ $preset == windows ]]; then
  cp "$build/src/plugin/liborb_runtime_qwen35.dll.a" "$folder"
fi
cp README.md LICENSE "$folder"
cp include/orb_plugin.h "$folder/include"
cp models/demo.orb "$folder/models"

cd "$folder"
if [[ $archive == *.zip ]]; then
  cmake -E tar cf "../$archive" --format=zip -- *
else
  tar --owner=0 --group=0 -czf "../$archive" -- *
fi
cd ../..
rm -rf "$folder"
echo "dist/$archive"
