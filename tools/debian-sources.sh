# The sources from which mmdebstrap gets Debian 12, by the settings of this machine's apt. Sourced. Sets sources, the
# lines of a sources.list, and source_options, the matching options of mmdebstrap.
# shellcheck shell=bash disable=SC2034

# shellcheck disable=SC2016
sources=$(apt-get indextargets --format \
  'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
  'Created-By: Packages' 'Origin: Debian' | grep -w 'bookworm[^ ]*' | sort -u)
[[ $sources ]] || {
  echo "${0##*/}: apt of this machine knows no Debian 12" >&2
  exit 1
}
# apt's settings of proxies, certificates and valid dates.
mapfile -t source_options < <(apt-config dump Acquire |
  sed -n 's/^\(Acquire::\(https\?::\|Check-\|Retries\).*\);$/--aptopt=\1/p')
