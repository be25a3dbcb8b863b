;; For the init file of Emacs 29 or later, or of an older one with the package eglot.
;; To complete the keys that a meter server sends, append "--target" "127.0.0.1:50005" to "lsp".
(define-derived-mode grpc-gateway-mode conf-mode "Gateway"
  "Configurations of the grpc-gateway module."
  (conf-mode-initialize ";"))
(add-to-list 'auto-mode-alist
             '("/\\(?:sonalith/.*\\|\\(?:grpc-\\)?gateway[^/]*\\)\\.conf\\'" . grpc-gateway-mode))
(with-eval-after-load 'eglot
  (add-to-list 'eglot-server-programs '(grpc-gateway-mode . ("gatewayctl" "lsp"))))
(add-hook 'grpc-gateway-mode-hook #'eglot-ensure)
