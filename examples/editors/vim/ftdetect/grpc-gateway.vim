" Configurations of the grpc-gateway module.
autocmd BufNewFile,BufRead */sonalith/*.conf,grpc-gateway*.conf*,gateway*.conf
      \ set filetype=grpc-gateway
