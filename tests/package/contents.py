"""All files of an installation, relative to its prefix, by component."""

MODULE = {
    "{libdir}/sonalith/modules/grpc-gateway.so",
    "share/man/man5/grpc-gateway.conf.5",
    "share/man/man7/grpc-gateway.7",
}
SAMPLE = "etc/sonalith/grpc-gateway.conf.example"
SHARED = "share/sonalith/grpc-gateway/"
TOOLS = {
    "bin/gatewayctl",
    "lib/systemd/system/gatewayctl-host@.service",
    "lib/systemd/system/gatewayctl-sim@.service",
    "share/bash-completion/completions/gatewayctl",
    "share/fish/vendor_completions.d/gatewayctl.fish",
    "share/man/man1/gatewayctl-check.1",
    "share/man/man1/gatewayctl-completion.1",
    "share/man/man1/gatewayctl-demo.1",
    "share/man/man1/gatewayctl-discover.1",
    "share/man/man1/gatewayctl-host.1",
    "share/man/man1/gatewayctl-lsp.1",
    "share/man/man1/gatewayctl-probe.1",
    "share/man/man1/gatewayctl-record.1",
    "share/man/man1/gatewayctl-sim.1",
    "share/man/man1/gatewayctl-top.1",
    "share/man/man1/gatewayctl.1",
    "share/zsh/vendor-completions/_gatewayctl",
    SHARED + "docs/api.md",
    SHARED + "docs/check.schema.json",
    SHARED + "docs/openapi.json",
    SHARED + "docs/sim-control.md",
    SHARED + "docs/sim-control.openapi.json",
    SHARED + "examples/editors/README.md",
    SHARED + "examples/editors/emacs.el",
    SHARED + "examples/editors/neovim.lua",
    SHARED + "examples/editors/vim/ftdetect/grpc-gateway.vim",
    SHARED + "examples/editors/vim/syntax/grpc-gateway.vim",
    SHARED + "examples/editors/vscode/.vscodeignore",
    SHARED + "examples/editors/vscode/extension.js",
    SHARED + "examples/editors/vscode/language-configuration.json",
    SHARED + "examples/editors/vscode/package.json",
    SHARED + "examples/editors/vscode/syntaxes/grpc-gateway.tmLanguage.json",
    SHARED + "examples/tests/README.md",
    SHARED + "examples/tests/cpp/CMakeLists.txt",
    SHARED + "examples/tests/cpp/gain_test.cpp",
    SHARED + "examples/tests/node/gain.test.js",
    SHARED + "examples/tests/python/gain_test.py",
    SHARED + "operations/alerts.yml",
    SHARED + "operations/dashboard.json",
}
DEV = {
    "include/sonalith/sonalith.h",
    "share/cmake/sonalith-host/sonalith-host-config-version.cmake",
    "share/cmake/sonalith-host/sonalith-host-config.cmake",
    "share/pkgconfig/sonalith-host.pc",
    SHARED + "docs/servers.md",
    SHARED + "examples/grpc-gateway.conf",
    SHARED + "examples/mixer.conf",
    SHARED + "examples/servers/README.md",
    SHARED + "examples/servers/cpp/CMakeLists.txt",
    SHARED + "examples/servers/cpp/server.cpp",
    SHARED + "examples/servers/node/package-lock.json",
    SHARED + "examples/servers/node/package.json",
    SHARED + "examples/servers/node/server.js",
    SHARED + "examples/servers/python/schemas.py",
    SHARED + "examples/servers/python/server.py",
    SHARED + "proto/common.proto",
    SHARED + "proto/engine.proto",
    SHARED + "proto/meters.proto",
}


def of_module(libdir):
    return {name.format(libdir=libdir) for name in MODULE} | {SAMPLE}
