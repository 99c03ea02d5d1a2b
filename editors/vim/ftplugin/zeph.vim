" :make checks the site of the working directory.
if exists("b:did_ftplugin")
  finish
endif
let b:did_ftplugin = 1
compiler zeph
setlocal commentstring=<ZpCOMMENT>%s</ZpCOMMENT>
let b:undo_ftplugin = "setlocal commentstring< makeprg< errorformat<"
