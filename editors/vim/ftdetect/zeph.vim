autocmd BufRead,BufNewFile *.zeph setfiletype zeph
