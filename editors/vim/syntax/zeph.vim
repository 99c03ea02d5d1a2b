" Pages of Zeph: HTML with tags. The lists are those of the compiler; a test compares them.

if exists("b:current_syntax")
  finish
endif
runtime! syntax/html.vim
unlet! b:current_syntax

syntax case ignore

" The tags are in all parts of a page, attributes of HTML and scripts included.
let s:everywhere = "containedin=ALLBUT,@zephInside,zephComment,zephAssembly"

syntax cluster zephInside contains=zephTag,zephTagName,zephClose,zephValue,zephText,zephQuote,zephNumber,zephOperator,zephWord,zephAttribute,zephScope,zephFunction,zephUnknown
syntax cluster zephExpression contains=zephText,zephNumber,zephOperator,zephWord,zephAttribute,zephScope,zephFunction

exe 'syntax match zephUnknown +</\=\%(Zp[a-z-]*\|ZEPH\)\>+' s:everywhere
exe 'syntax region zephTag matchgroup=zephTagName start=+<\%(ZEPH\|ZpADD\|ZpASSEMBLY\|ZpASSIGN\|ZpASSIGNARRAY\|ZpASYNC\|ZpASYNCHRONOUS\|ZpCALL\|ZpCALLCONTINUE\|ZpCALLSTOP\|ZpCAPTURE\|ZpCLOSE\|ZpCLOSEVIEW\|ZpCOMMENT\|ZpCOMMERCE\|ZpCOMMERCECONTINUE\|ZpCOMMERCESTOP\|ZpCOMMIT\|ZpCREATE\|ZpDBCOMMAND\|ZpDELETE\|ZpDIMENSION\|ZpDO\|ZpELSE\|ZpELSEIF\|ZpEVAL\|ZpEXIT\|ZpEXPORT\|ZpFILTER\|ZpFIND\|ZpFOR\|ZpFORCONTINUE\|ZpFOREACH\|ZpFOREACHCONTINUE\|ZpFOREACHSTOP\|ZpFORSTOP\|ZpFUNCRETURN\|ZpFUNCTION\|ZpFUNCTIONRETURN\|ZpGO\|ZpHIDE\|ZpIF\|ZpIFDEF\|ZpIFNDEF\|ZpIMPORT\|ZpIMPORTCONTINUE\|ZpIMPORTSTOP\|ZpINCLUDE\|ZpLOCALIZED\|ZpLOCALIZED-TEXT\|ZpLOCALIZED-TOKEN\|ZpLOCKFILE\|ZpMAKEINDEX\|ZpMEMBER\|ZpOPEN\|ZpOPENVIEW\|ZpPACK\|ZpPOP\|ZpPOPCONTINUE\|ZpPOPDELETE\|ZpPOPSTOP\|ZpPRIMARY\|ZpQUERY\|ZpREFERENCE\|ZpREFERENCEARRAY\|ZpREINDEX\|ZpREVEALSTRUCTURE\|ZpROLLBACK\|ZpSETINDEX\|ZpSKIP\|ZpSMTP\|ZpTRANSACT\|ZpUNDELETE\|ZpUPDATE\|ZpWHILE\|ZpWHILECONTINUE\|ZpWHILESTOP\)[a-z0-9_-]\@!+ end=+>+ keepend contains=@zephExpression' s:everywhere
exe 'syntax match zephClose +</\%(ZpASSEMBLY\|ZpASYNC\|ZpASYNCHRONOUS\|ZpCALL\|ZpCAPTURE\|ZpCOMMENT\|ZpCOMMERCE\|ZpFOR\|ZpFOREACH\|ZpFUNCTION\|ZpIF\|ZpIFDEF\|ZpIFNDEF\|ZpIMPORT\|ZpLOCALIZED\|ZpLOCALIZED-TEXT\|ZpLOCKFILE\|ZpPOP\|ZpSMTP\|ZpWHILE\)\s*>+' s:everywhere
exe 'syntax region zephValue matchgroup=zephTagName start=+{{+ end=+}}+ contains=@zephExpression' s:everywhere
exe 'syntax region zephValue matchgroup=zephTagName start=+{{{+ end=+}}}+ contains=@zephExpression' s:everywhere
exe 'syntax region zephAssembly matchgroup=zephTagName start=+<ZpASSEMBLY\s*>+ end=+</ZpASSEMBLY\s*>+ contains=zephLine,zephText,zephNumber' s:everywhere
exe 'syntax region zephComment start=+<ZpCOMMENT\s*>+ end=+</ZpCOMMENT\s*>+ contains=zephComment' s:everywhere
exe 'syntax match zephEscape +\\\%({{{\=\|</\=Zp[a-z-]*\|<ZEPH\)+' s:everywhere
syntax match zephLine +;.*$+ contained

syntax region zephText start=+"+ skip=+\\["']+ end=+"+ contained contains=zephQuote
syntax region zephText start=+'+ skip=+\\["']+ end=+'+ contained contains=zephQuote
syntax match zephQuote +\\["']+ contained
syntax match zephNumber '\<0x\x\+\>\|\<\d\+\%(\.\d*\)\=\|[a-z0-9_.]\@<!\.\d\+' contained
syntax match zephFunction +\<\h\w*(\@=+ contained
syntax match zephOperator '++\|--\|[-+*/$=]' contained
syntax keyword zephOperator contained
  \ AND BITAND BITOC BITOR BITSL BITSR BITXOR CIN
  \ CRYPT ECIN EIN EQ GE GT IN ISNULL
  \ LE LT MOD NE NOT OR POW ROUNDF
  \ ROUNDS
syntax keyword zephWord contained
  \ compress erroroff erroron exact external inherit reference step
  \ to var
syntax match zephAttribute +[.:a-z0-9_]\@<!\h\w*\%(\s*=\)\@=+ contained
syntax match zephScope +\<\%(l\|local\|g\|global\|s\|system\|d\|database\)\.+ contained

highlight default link zephTagName Statement
highlight default link zephClose Statement
highlight default link zephUnknown Error
highlight default link zephComment Comment
highlight default link zephLine Comment
highlight default link zephEscape SpecialChar
highlight default link zephQuote SpecialChar
highlight default link zephText String
highlight default link zephNumber Number
highlight default link zephOperator Operator
highlight default link zephWord Keyword
highlight default link zephAttribute Identifier
highlight default link zephScope StorageClass
highlight default link zephFunction Function

syntax case match
let b:current_syntax = "zeph"
