-- Run by Neovim with a configuration that has two mistakes: waits for the diagnostics, makes the
-- repairs and saves the file. Prints what it sees, and ends with an exit code other than 0 if
-- something does not come.
local patience = 60000

local function say(...)
  io.stdout:write(table.concat({ ... }, " "), "\n")
end

local function wait(what, condition)
  if not vim.wait(patience, condition, 10) then
    say("no " .. what)
    vim.cmd("cquit")
  end
end

local function syntax_at(line, column)
  return vim.fn.synIDattr(vim.fn.synID(line, column, 1), "name")
end

local function client()
  local get = vim.lsp.get_clients or vim.lsp.get_active_clients
  return get()[1]
end

local function ask(method, params)
  params.textDocument = vim.lsp.util.make_text_document_params()
  local answers = vim.lsp.buf_request_sync(0, method, params, patience)
  for _, answer in pairs(answers or {}) do
    return answer.result
  end
end

local function actions(kind, line)
  local place = { line = line, character = 0 }
  return ask("textDocument/codeAction", {
    range = { start = place, ["end"] = { line = line + 1, character = 0 } },
    context = { diagnostics = {}, only = { kind } },
  })
end

local function apply(action)
  vim.lsp.util.apply_workspace_edit(action.edit, client().offset_encoding)
end

local function main()
  say("filetype", vim.bo.filetype)
  say("syntax", syntax_at(1, 2), syntax_at(2, 1), syntax_at(4, 7))
  wait("diagnostics", function() return #vim.diagnostic.get(0) == 2 end)
  for _, each in ipairs(vim.diagnostic.get(0)) do
    say("diagnostic", each.lnum, each.code or each.user_data.lsp.code)
  end

  local fixes = actions("quickfix", 0)
  say("quickfix", fixes[1].title)
  apply(fixes[1])
  wait("change of the diagnostics", function() return #vim.diagnostic.get(0) == 1 end)

  apply(actions("source.fixAll", 0)[1])
  wait("end of the diagnostics", function() return #vim.diagnostic.get(0) == 0 end)

  local hover = ask("textDocument/hover", { position = { line = 3, character = 0 } })
  say("hover", (hover.contents.value:gsub("\n.*", "")))
  vim.cmd("write")
  say("saved")
  vim.cmd("qall")
end

local good, problem = pcall(main)
if not good then
  say("failed:", problem)
  vim.cmd("cquit")
end
