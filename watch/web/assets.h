// The pages, in their built form: the live page as files for a server, the report page as a frame
// around its data. They load nothing from elsewhere.
//
// Ownership: all bytes are constants of the program.
//
// Threads: any.

#pragma once

#include <span>
#include <string_view>

// A file of the live page.
struct WebAsset {
    std::string_view path;         // of the request: "/", "/page.js"
    std::string_view contentType;  // with its charset
    std::string_view body;
};

// What to answer under each path.
[[nodiscard]] std::span<const WebAsset> webAssets();

// The value of the header Content-Security-Policy under which the live page works, to be sent along
// with each of its files. Beside these files the page asks for "/events" and "/history.json".
inline constexpr std::string_view kWebContentSecurityPolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
    "require-trusted-types-for 'script'";

// A report is the head, the data, the tail, in UTF-8. The data is an object of
// docs/pelmowatch-report.schema.json, in which each "<" is written as \u003c. The page states its
// own security policy, by hashes of its script and style.
struct WebReportFrame {
    std::string_view head;
    std::string_view tail;
};

[[nodiscard]] WebReportFrame webReportFrame();
