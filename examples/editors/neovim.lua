-- For init.lua of Neovim 0.7 or later. The folder vim/ gives files their type.
vim.api.nvim_create_autocmd("FileType", {
  pattern = "grpc-gateway",
  callback = function()
    local config = {
      name = "gatewayctl",
      cmd = { "gatewayctl", "lsp" },
      -- Completes the keys that this meter server sends.
      -- init_options = { target = "127.0.0.1:50005" },
    }
    if vim.lsp.start then -- Neovim 0.8
      vim.lsp.start(config)
    else
      vim.lsp.buf_attach_client(0, vim.lsp.start_client(config))
    end
  end,
})
