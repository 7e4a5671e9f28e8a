# Reads what `readelf --debug-dump=info` tells of an object that includes the public headers, and
# writes the layout of every class of namespace vornfc that has a definition there: its size, the
# places of its bases and of its public and protected data members, what its public and protected
# member functions return, which their mangled names do not tell, and the slots of its virtual
# functions. A line is the class, a key to sort by, and the fact.

/^ *<[0-9a-f]+><[0-9a-f]+>: Abbrev Number:/ {
  split($0, part, /[<>]+/)
  depth = from_hex(part[2])
  id = part[3]
  if (!/DW_TAG_/) {
    id = ""  # the end of a list of children
    next
  }
  count++
  ids[count] = id
  tag[id] = $0
  sub(/^.*\(DW_TAG_/, "", tag[id])
  sub(/\).*$/, "", tag[id])
  at_depth[depth] = id
  if (depth > 0) parent[id] = at_depth[depth - 1]
  next
}

id == "" { next }

/DW_AT_name  / { name[id] = text() }
/DW_AT_linkage_name/ { linkage[id] = text() }
/DW_AT_byte_size/ { size[id] = number() }
/DW_AT_data_member_location/ { place[id] = number() }
/DW_AT_upper_bound/ { bound[parent[id]] = number() + 1 }
/DW_AT_count/ { bound[parent[id]] = number() }
/DW_AT_accessibility/ { access[id] = number() }
/DW_AT_declaration/ { declared[id] = 1 }
/DW_AT_artificial/ { artificial[id] = 1 }
/DW_AT_external/ { external[id] = 1 }
/DW_AT_deleted/ { deleted[id] = 1 }
/DW_AT_vtable_elem_location/ {
  slot[id] = "?"
  if (match($0, /DW_OP_constu: [0-9]+/)) slot[id] = substr($0, RSTART + 14, RLENGTH - 14)
}
/DW_AT_type  / {
  type[id] = $0
  sub(/^.*<0x/, "", type[id])
  sub(/>.*$/, "", type[id])
}

END {
  for (i = 1; i <= count; i++) {
    die = ids[i]
    if (is_class(die) && !declared[die] && is_public(die)) tell(die, "0", "size " size[die])
    owner = parent[die]
    if (!is_class(owner) || declared[owner] || !is_public(owner)) continue
    # Destructors have no number from g++: theirs are the two that are missing.
    if (die in slot && name[die] !~ /^~/)
      tell(owner, sprintf("4%05d", slot[die]), "slot " slot[die] " " linkage[die])
    if (accessible(die) == 3) continue
    if (tag[die] == "inheritance")
      tell(owner, sprintf("1%05d", place[die]), "base " spelled(type[die]) " at " place[die])
    else if (tag[die] == "member" && !external[die] && !artificial[die])
      tell(owner, sprintf("2%05d", place[die]),
           "member " name[die] " at " place[die] " is " spelled(type[die]))
    else if (tag[die] == "subprogram" && linkage[die] != "" && !deleted[die] && !artificial[die] &&
             linkage[die] !~ /[CD][1-5]E/)
      tell(owner, "3" linkage[die], "returns " spelled(type[die]) " from " linkage[die])
  }
}

function tell(die, key, what) { print qualified(die), key, what }

function is_class(die) { return tag[die] == "class_type" || tag[die] == "structure_type" }

# Of namespace vornfc, whether or not nested in a public class, and not private there.
function is_public(die,    up) {
  if (name[die] == "") return 0
  up = parent[die]
  if (tag[up] == "namespace") return name[up] == "vornfc" && tag[parent[up]] == "compile_unit"
  return is_class(up) && accessible(die) != 3 && is_public(up)
}

# 1 public, 2 protected, 3 private
function accessible(die) {
  if (die in access) return access[die]
  return tag[parent[die]] == "class_type" ? 3 : 1
}

function qualified(die,    up) {
  up = parent[die]
  # An inline namespace is not part of a name's usual spelling.
  while (name[up] == "__cxx11") up = parent[up]
  if (name[up] != "" && tag[up] != "compile_unit") return qualified(up) "::" bare(name[die])
  return bare(name[die])
}

# A name without blanks, and without what compilers spell differently in arguments of templates.
function bare(word) {
  gsub(/ \*/, "*", word)
  gsub(/, /, ",", word)
  gsub(/ >/, ">", word)
  gsub(/ /, "_", word)
  while (match(word, /[0-9]UL/)) word = substr(word, 1, RSTART) substr(word, RSTART + 3)
  return word
}

function spelled(die) {
  if (die == "") return "void"
  if (tag[die] == "pointer_type") return spelled(type[die]) "*"
  if (tag[die] == "reference_type") return spelled(type[die]) "&"
  if (tag[die] == "rvalue_reference_type") return spelled(type[die]) "&&"
  if (tag[die] == "const_type") return spelled(type[die]) " const"
  if (tag[die] == "volatile_type") return spelled(type[die]) " volatile"
  if (tag[die] == "array_type") return spelled(type[die]) "[" bound[die] "]"
  if (tag[die] == "subroutine_type") return "function"
  return qualified(die)
}

function text(    word) {
  word = $0
  sub(/^.*DW_AT_(linkage_)?name *: (\(alt[^)]*\) |\(indirect[^)]*\): |\(indexed string[^)]*\): )?/, "", word)
  sub(/[ \t]+$/, "", word)
  return word
}

function number(    word) {
  word = $0
  sub(/^[^:]*: */, "", word)
  sub(/^\([a-z0-9_]+\) /, "", word)
  sub(/[ \t].*$/, "", word)
  if (word ~ /^0x/) return from_hex(substr(word, 3))
  return word + 0
}

function from_hex(digits,    sum, k) {
  sum = 0
  for (k = 1; k <= length(digits); k++) sum = sum * 16 + index("0123456789abcdef", substr(digits, k, 1)) - 1
  return sum
}
