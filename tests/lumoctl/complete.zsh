# What zsh completes: complete.zsh FOLDER LINE... prints each line with all matches in place of its
# last word, as an interactive shell does that finds the completion functions in FOLDER.
zmodload zsh/zpty
folder=$1 result=$(mktemp)
shift

# The shell at the other end of the terminal: the tabulator puts every match in, ^X hands the line over.
print -r -- "
PROMPT= fpath=(${(q)folder} \$fpath)
autoload -Uz compinit && compinit -D -u
all() { _main_complete; compstate[insert]=all; compstate[list]= }
hand() { print -r -- \"\$BUFFER\" >>${(q)result}; BUFFER=; print -n HANDED }
zle -C all complete-word all && zle -N hand
bindkey '^I' all && bindkey '^X' hand
print ready
" >$result
zpty shell zsh -f -i
zpty -w shell "source ${(q)result}"
zpty -r -m shell seen $'*\nready*' || exit 1
: >$result
for line; do
  zpty -w -n shell "$line"$'\t\C-x'
  zpty -r -m shell seen '*HANDED*' || exit 1
done
zpty -d shell
cat $result
rm -f $result
