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
# How it gets them: proxies, certificates, which dates it takes.
mapfile -t source_options < <(apt-config dump Acquire |
  sed -n 's/^\(Acquire::\(https\?::\|Check-\|Retries\).*\);$/--aptopt=\1/p')
