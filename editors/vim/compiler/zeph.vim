" zeph check: a line for each error and warning.
if exists("current_compiler")
  finish
endif
let current_compiler = "zeph"
CompilerSet makeprg=zeph\ check
CompilerSet errorformat=%f:%l:%c:\ %trror:\ %m,%f:%l:%c:\ %tarning:\ %m,%f:%l:\ %trror:\ %m,%f:\ %trror:\ %m
