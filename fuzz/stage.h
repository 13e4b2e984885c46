// A small tree that stays as it is, on disk and in the model, for targets that change nothing.

#ifndef TAVRO_FUZZ_STAGE_H
#define TAVRO_FUZZ_STAGE_H

#include "model.h"
#include "sandbox.h"

#include <string>

namespace tavro_fuzz {

/// Directories, files, links to both, a dangling link and one in a circle. The home directory is in
/// it.
class Stage {
public:
    Stage();

    /// What the model says of paths that were asked about since the last call is worth comparing:
    /// it knows nothing of what lies outside.
    bool stayedInside() const {
        return !m_model.Disk.leftRoot();
    }

    const tavro_model::Model& model() const {
        return m_model;
    }

    /// Where the model takes the process to be; a target goes there for each input.
    const std::string& currentDirectory() const {
        return m_model.Disk.CurrentDirectory;
    }

    /// The text with each `$` replaced by the root's path, without zero bytes (which no path has).
    std::string inRoot(const std::string& text) const;

private:
    void addFolder(const std::string& path);
    void addFile(const std::string& path);
    void addLink(const std::string& path, const std::string& target);

    tavro_test::Sandbox m_sandbox;
    std::string m_root;
    tavro_model::Model m_model;
    tavro_test::ScopedEnvironment m_home;
};

/// The one of the process, made at the first call.
Stage& stage();

} // namespace tavro_fuzz

#endif
