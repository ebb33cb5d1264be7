#include "agent/backends/lxc/ContainerNotes.h"

#include <fmt/format.h>

#include <toml++/toml.h>

#include "agent/base/TomlGuard.h"

namespace kx::agent::lxc {
namespace {

/// Thrown inside this file only; parseContainerNotes() turns it into a value.
struct Wrong {
    NotesError error;
};

[[noreturn]] void wrong(const toml::source_position& where, std::string message) {
    throw Wrong{{where.line, where.column, std::move(message)}};
}

std::string textOf(const toml::node& node, std::string_view key) {
    const auto* text = node.as_string();
    if (text == nullptr) {
        wrong(node.source().begin, fmt::format("{} must be a string", key));
    }
    return text->get();
}

Eid eidOf(const toml::node& node, std::string_view key) {
    const auto eid = Eid::parse(textOf(node, key));
    if (!eid) {
        wrong(node.source().begin, fmt::format("{} must be a UUID", key));
    }
    return *eid;
}

Template templateOf(const toml::node& node) {
    const auto* table = node.as_table();
    if (table == nullptr) {
        wrong(node.source().begin, "a template must be a table with name and version");
    }
    Template result;
    bool named = false;
    for (const auto& [key, value] : *table) {
        if (key == "name") {
            result.name = textOf(value, "name");
            named = true;
        } else if (key == "version") {
            result.version = textOf(value, "version");
        } else {
            wrong(key.source().begin, fmt::format("unknown key \"{}\" in a template", key.str()));
        }
    }
    if (!named) {
        wrong(node.source().begin, "a template must have a name");
    }
    return result;
}

std::vector<Template> templatesOf(const toml::node& node) {
    const auto* array = node.as_array();
    if (array == nullptr) {
        wrong(node.source().begin, "templates must be an array of tables");
    }
    std::vector<Template> result;
    for (const toml::node& element : *array) {
        result.push_back(templateOf(element));
    }
    return result;
}

ContainerNotes notesOf(const toml::table& file) {
    ContainerNotes notes;
    for (const auto& [key, value] : file) {
        if (key == "description") {
            notes.description = textOf(value, "description");
        } else if (key == "base_sample") {
            notes.baseSample = eidOf(value, "base_sample");
        } else if (key == "templates") {
            notes.templates = templatesOf(value);
        } else {
            wrong(key.source().begin, fmt::format("unknown key \"{}\"", key.str()));
        }
    }
    return notes;
}

}  // namespace

std::variant<ContainerNotes, NotesError> parseContainerNotes(std::string_view text) {
    if (auto fault = findUnparsable(text)) {
        return NotesError{static_cast<unsigned>(fault->line), static_cast<unsigned>(fault->column),
                          std::move(fault->message)};
    }
    try {
        return notesOf(toml::parse(text));
    } catch (const toml::parse_error& error) {
        const auto where = error.source().begin;
        return NotesError{where.line, where.column, std::string(error.description())};
    } catch (const Wrong& error) {
        return error.error;
    }
}

}  // namespace kx::agent::lxc
