# Makes a configuration file's manual page of the file's own comments: awk -f config-page.awk HEAD CONFIG TAIL
# "; text" describes the keys that follow it; ";key = default" is a key, "[name]" a section.
function print_text() {
  if (keys > 0) {
    printf "%s", text
    text = ""
  }
  keys = 0
}
function end_list() {
  print_text()
  if (in_list) print ".El"
  in_list = 0
}
FNR == 1 { file++ }
file == 3 && FNR == 1 { end_list() }
file != 2 { print; next }
/^;?\[/ {
  end_list()
  gsub(/;/, "")
  print ".Ss " $0
  text = ""
  next
}
/^;?[a-z_]+ *=/ {
  if (!in_list) print ".Bl -tag -width Ds"
  in_list = 1
  name = value = $0
  sub(/^;/, "", name)
  sub(/ *=.*/, "", name)
  sub(/^[^=]*= */, "", value)
  gsub(/-/, "\\-", value)
  print ".It Cm " name (value == "" ? "" : " No = " value)
  keys++
  next
}
/^;/ {
  print_text()
  line = substr($0, 3)
  if (line ~ /^[0-9]  /) text = text ".br\n"
  sub(/^ +/, "", line)
  gsub(/\\/, "\\e", line)
  gsub(/--/, "\\-\\-", line)
  sub(/^[.']/, "\\\\\\&&", line)
  text = text (line == "" ? ".Pp" : line) "\n"
  next
}
{ print_text(); text = "" }
