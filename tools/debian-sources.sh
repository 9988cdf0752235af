# Where mmdebstrap finds Debian 12, as apt of this machine knows it. Sourced. Sets sources, the lines of a
# sources.list, and source_options, mmdebstrap's options with it.
# shellcheck shell=bash disable=SC2034

# shellcheck disable=SC2016
sources=$(apt-get indextargets --format \
  'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
  'Created-By: Packages' 'Origin: Debian' | grep -w 'bookworm[^ ]*' | sort -u)
[[ $sources ]] || {
  echo "${0##*/}: apt of this machine knows no Debian 12" >&2
  exit 1
}
source_options=()
for kind in http https; do
  eval "$(apt-config shell proxy "Acquire::$kind::Proxy")"
  [[ -z ${proxy:-} ]] || source_options+=(--aptopt="Acquire::$kind::Proxy \"$proxy\"")
  proxy=
done
