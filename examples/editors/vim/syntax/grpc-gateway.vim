" Configurations of the grpc-gateway module, as the module reads them.
if exists("b:current_syntax")
  finish
endif

" Sections and keys ignore case, except for ParseIfExist:. Entries do not.
syntax case ignore
syntax match gatewayUnknownSection "^\s*\[[^]]*\]\?" nextgroup=gatewayIgnored
syntax match gatewaySection nextgroup=gatewayIgnored
      \ "^\s*\[\%(Meters\|Engine\)\%(String\|Int\|Uint\|Float\)\?\]"
syntax match gatewayKey nextgroup=gatewayAssignment
      \ "^\s*\%(Target\|Enable\%(Fast\|Slow\)Meters\|Meter\|Param\|File\)\ze\s*="
syntax match gatewayAssignment "\s*=\s*" contained
syntax case match

syntax match gatewaySection "^\s*\[ParseIfExist:[^]]*\]" nextgroup=gatewayIgnored
syntax match gatewayIgnored ".*$" contained
syntax match gatewayWord "\%(=\|\s\)\@<=\%(Key\|CustomKey\|Type\|DefaultValue\)\ze="
syntax match gatewayType "\%(Type=\)\@<=\%(fast\|slow\)\>"
syntax match gatewaySwitch "\c\%(Meters\s*=\s*\)\@<=\%(true\|false\)\>"
syntax region gatewayString start=+"+ skip=+\\"+ end=+"+ oneline
syntax region gatewayString start=+'+ end=+'+ oneline

" A ";" after white space begins a comment, even within quotes. A "#" does so only in front.
syntax match gatewayComment "^\s*[;#].*$"
syntax match gatewayComment "\s\@<=;.*$" containedin=gatewayString,gatewayIgnored

highlight default link gatewaySection Type
highlight default link gatewayUnknownSection Error
highlight default link gatewayKey Identifier
highlight default link gatewayAssignment Operator
highlight default link gatewayIgnored Comment
highlight default link gatewayWord Keyword
highlight default link gatewayType Constant
highlight default link gatewaySwitch Boolean
highlight default link gatewayString String
highlight default link gatewayComment Comment

let b:current_syntax = "grpc-gateway"
