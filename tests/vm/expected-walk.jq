# From `ip -d -j link` to what snmpwalk must print of the tunnel MIB for those links, a line each:
# OID VALUE, octets as two hexadecimal digits each. $defaultTtl: net.ipv4.ip_default_ttl.

def table($number; $column): ".1.3.6.1.2.1.10.131.1.1.\($number).1.\($column).";

def unhex: ascii_downcase | ltrimstr("0x") | explode
  | reduce .[] as $digit (0; . * 16 + ($digit - if $digit < 58 then 48 else 87 end));
def hex: [(. / 16 | floor), . % 16] | map("0123456789ABCDEF"[.:. + 1]) | join("");

def groups: if . == "" then [] else split(":") end;
# The octets of an address as ip writes it; none for a missing one.
def octets:
  if . == null or . == "any" then []
  elif contains(":") then
    (split("::") | map(groups)) as $half
    | $half[0] + [range(8 - ($half | map(length) | add)) | "0"] + ($half[1] // [])
    | map(unhex | (. / 256 | floor), . % 256)
  else split(".") | map(tonumber) end;

def fallback: IN("gre0", "ip6gre0", "tunl0", "sit0", "ip6tnl0", "ip_vti0", "ip6_vti0");

def encapsulation:
  if .kind == "gre" or .kind == "ip6gre" then 3
  elif .kind == "ipip" or .kind == "ip6tnl" then 2
  elif .kind == "sit" and (.special | not) then 2
  else 1 end;
def hopLimit: if IN(.kind; "vti", "vti6", "xfrm") then $defaultTtl else .data.ttl end;
def tos:
  if .data.ip6_tnl_f_use_orig_tclass then 0
  else (.data.tos // .data.tclass // "0x0") | unhex
    | if . % 2 == 1 then 0 else . / 4 | floor end
  end;
def security: if IN(.kind; "vti", "vti6", "xfrm") then 2 else 1 end;
def addressType: if length == 4 then 1 elif length == 16 then 2 else 0 end;

def tunnelIfTable:
  [[3, encapsulation], [4, hopLimit], [5, security], [6, tos],
   [8, (if .local == [] then .remote else .local end | addressType)],
   [9, (.local | map(hex) | join(" "))], [10, (.remote | map(hex) | join(" "))]][] as [$column, $value]
  | "\(table(1; $column))\(.index) \($value)" | rtrimstr(" ");

def tunnelInetConfigTable:
  select(.local != [] and .remote != [])
  | ([(.local | addressType), (.local | length), .local[], (.remote | length), .remote[],
      encapsulation, 1] | join(".")) as $key
  | ([6, .index], [7, 1], [8, 5]) as [$column, $value]
  | "\(table(3; $column))\($key) \($value)";

.[]
| select(.linkinfo.info_kind
         | IN("gre", "ip6gre", "ipip", "sit", "ip6tnl", "vti", "vti6", "xfrm"))
| select(.ifname | fallback | not)
| {index: .ifindex, kind: .linkinfo.info_kind, data: .linkinfo.info_data}
| .local = (.data.local | octets) | .remote = (.data.remote | octets)
| .special = (.data.isatap != null or .remote == [])
| tunnelIfTable, tunnelInetConfigTable
