#!/usr/bin/env bash
# Reads the kernel image and fails unless it is a native x64 driver image:
# machine x86-64 (PE32+), subsystem native, kernel-image section alignment,
# base relocations, entry point DriverEntry, imports only from ntoskrnl.exe,
# hal.dll, ndis.sys and usbd.sys (and no other library in the link), no TLS
# directory, no runtime initialisation section (nor, since the linker folds
# constructor lists into .text, any constructor list in the link map), no
# exception or RTTI support, version resource 1.50.0 with the original file
# name. Prints the imports, the image size and the import count.
#   scripts/check-image.sh [image.sys [image.map]]
# Default: build/windows/kernel/ethbrg_x64.sys and the map the link wrote
# beside it (the image has no symbol table).
set -euo pipefail
cd "$(dirname "$0")/.."
image="${1:-build/windows/kernel/ethbrg_x64.sys}"
map="${2:-${image%.sys}.map}"
version="1.50.0"
allowed="ntoskrnl.exe hal.dll ndis.sys usbd.sys"
objdump=x86_64-w64-mingw32-objdump
objcopy=x86_64-w64-mingw32-objcopy

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
ok() { echo "ok: $*"; }

[ -f "$image" ] || { echo "FAIL: no image at $image"; exit 1; }
headers="$($objdump -p "$image")"
field() { awk -v k="$1" '$1 == k { print $2; exit }' <<<"$headers"; }

# Machine and format.
format="$($objdump -f "$image" | awk '/file format/ { print $NF }')"
if [ "$format" = "pei-x86-64" ] && [ "$(field Magic)" = "020b" ]; then
  ok "machine x86-64, PE32+"
else
  fail "format $format, magic $(field Magic): not a PE32+ x86-64 image"
fi

# Subsystem.
if [ "$(field Subsystem)" = "00000001" ]; then ok "subsystem native"; else fail "subsystem $(field Subsystem), not native (1)"; fi

# Layout: page-aligned sections and base relocations (the kernel loads the
# image at any address); not a DLL.
if [ "$(field SectionAlignment)" = "00001000" ]; then
  ok "section alignment 0x1000"
else
  fail "section alignment 0x$(field SectionAlignment), not 0x1000"
fi
reloc_size="$(awk '/Base Relocation Directory/ { print $3; exit }' <<<"$headers")"
if [ -n "$reloc_size" ] && [ "$((16#$reloc_size))" -gt 0 ]; then ok "base relocations"; else fail "no base relocations"; fi
if grep -qw "DLL" <<<"$(sed -n '/^Characteristics/,/^$/p' <<<"$headers")"; then fail "the image is flagged as a DLL"; fi

# Entry point: the address of DriverEntry in the link map.
entry="$(field AddressOfEntryPoint)"
base="$(field ImageBase)"
driver_entry="$(awk '$2 == "DriverEntry" && $1 ~ /^0x/ { print $1; exit }' "$map" 2>/dev/null || true)"
if [ -z "$driver_entry" ]; then
  fail "DriverEntry not found in $map"
elif [ "$((16#$base + 16#$entry))" -eq "$((driver_entry))" ]; then
  ok "entry point DriverEntry (rva 0x$(printf %x "$((16#$entry))"))"
else
  fail "entry point rva 0x$entry is not DriverEntry ($driver_entry)"
fi

# Imports, per module.
imports="$(awk '
  /DLL Name:/ { dll = tolower($3); next }
  dll != "" && /^\t[0-9a-f]+\t +[0-9]+ / { print dll, $3 }
  /^$/ && dll != "" && seen { dll = "" }
  /Member-Name/ { seen = 1 }
' <<<"$headers")"
import_count="$(grep -c . <<<"$imports" || true)"
echo "imports:"
for dll in $(awk '{ print $1 }' <<<"$imports" | sort -u); do
  echo "  $dll: $(awk -v d="$dll" '$1 == d { printf "%s ", $2 }' <<<"$imports")"
  case " $allowed " in
  *" $dll "*) ;;
  *) fail "import from $dll (only $allowed)" ;;
  esac
done
[ "$import_count" -gt 0 ] || fail "no imports found"
# Libraries from outside the build: the four import libraries only.
foreign="$(awk '$1 == "LOAD" && $2 ~ /^\// { print $2 }' "$map" 2>/dev/null |
  grep -vE '/lib(ntoskrnl|hal|ndis|usbd)\.a$' || true)"
if [ -n "$foreign" ]; then
  fail "linked with $(tr '\n' ' ' <<<"$foreign")"
else
  ok "linked with the import libraries of $allowed only"
fi

# Nothing that needs a runtime or a loader callback.
tls_size="$(awk '/Thread Storage Directory/ { print $3; exit }' <<<"$headers")"
if [ -n "$tls_size" ] && [ "$((16#$tls_size))" -ne 0 ]; then fail "TLS directory present"; else ok "no TLS directory"; fi
sections="$($objdump -h "$image" | awk '$1 ~ /^[0-9]+$/ { print $2 }')"
bad_sections="$(grep -E '^\.(CRT|ctors|dtors|init_array|fini_array|preinit_array|init|fini|tls)(\$.*)?$' <<<"$sections" || true)"
if [ -n "$bad_sections" ]; then
  fail "runtime initialisation sections: $(tr '\n' ' ' <<<"$bad_sections")"
else
  ok "no runtime initialisation section ($(tr '\n' ' ' <<<"$sections"))"
fi
# The linker folds constructor lists into .text: the map shows what went in.
bad_inputs="$(grep -E '^ \.(ctors?|dtors?|init_array|fini_array|preinit_array|CRT\$|tls)' "$map" 2>/dev/null |
  awk '{ print $1 " from " $NF }' || true)"
if [ -n "$bad_inputs" ]; then
  fail "global constructors, destructors or TLS: $(tr '\n' ' ' <<<"$bad_inputs")"
else
  ok "no global constructor, destructor or TLS data in the link map"
fi
# No C++ exceptions or RTTI linked in: no type information, personality
# routine, unwinder or throw.
linked="$(sed -n '/^Linker script and memory map/,$p' "$map" 2>/dev/null || true)"
cxx_runtime="$(grep -oE '_ZT[IS][A-Za-z0-9_]+|__gxx_personality[a-z0-9_]*|_Unwind_[A-Za-z]+|__cxa_(throw|begin_catch|rethrow)' \
  <<<"$linked" | sort -u || true)"
if [ -n "$cxx_runtime" ]; then
  fail "exception or RTTI support linked in: $(tr '\n' ' ' <<<"$cxx_runtime")"
else
  ok "no exception or RTTI support linked in"
fi

# Version resource: VS_FIXEDFILEINFO (signature 0xFEEF04BD) and the strings.
rsrc="$(mktemp)"
trap 'rm -f "$rsrc"' EXIT
$objcopy -O binary --only-section=.rsrc "$image" "$rsrc" 2>/dev/null || true
words="$(od -An -v -t x4 -w4 "$rsrc" | tr -d ' ')"
read -r _sig _struct fms fls pms pls _rest <<<"$(grep -A5 -m1 '^feef04bd$' <<<"$words" | tr '\n' ' ' || true)"
as_version() { echo "$((16#$1 >> 16)).$((16#$1 & 0xffff)).$((16#$2 >> 16))"; }
strings_utf16="$(iconv -f UTF-16LE -t UTF-8 -c "$rsrc" 2>/dev/null | tr '\0' '\n' || true)"
if [ -z "${fms:-}" ]; then
  fail "no version resource"
else
  file_version="$(as_version "$fms" "$fls")"
  product_version="$(as_version "$pms" "$pls")"
  if [ "$file_version" = "$version" ] && [ "$product_version" = "$version" ]; then
    ok "file and product version $version"
  else
    fail "file version $file_version, product version $product_version, not $version"
  fi
  for text in "$version" "ethbrg_x64.sys"; do
    grep -qF "$text" <<<"$strings_utf16" || fail "version strings lack \"$text\""
  done
fi

size="$(stat -c %s "$image")"
echo "image: $image, $size bytes, $import_count imports"
if [ "$failures" -ne 0 ]; then
  echo "check-image: $failures check(s) failed"
  exit 1
fi
echo "check-image: all checks passed"
