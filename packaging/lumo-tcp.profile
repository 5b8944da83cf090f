# Logins find the packaged agent: applications that look at TAVRIN_TMP alone need it there. Set for
# those who may enter the directory, the members of the group lumo. Not for root, who finds it
# without: an agent that root starts by hand would open the directory to everybody.
if [ -z "${TAVRIN_TMP-}" ] && [ "$(id -u)" -ne 0 ] && [ -d /run/lumo/agent ]; then
  export TAVRIN_TMP=/run/lumo/agent
fi
