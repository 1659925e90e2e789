// A service that creates a directory and a file in two steps, recording each
// step in a file-operations journal before taking it, and that recovers an
// operation a crash left half done.
//
//   journal_service start     begins an operation and "crashes" half-way
//   journal_service recover   undoes what unfinished journals recorded
//   journal_service run       one whole operation, finished and cleaned up
//
// Run from a scratch directory: the journals go to ./journals, the files the
// operation makes to ./work.

#include <tessera/basicFileOpsJournal.h>
#include <tessera/exception.h>
#include <tessera/system/system.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace Tessera;
using namespace Tessera::Service;

namespace {

Ref<System::File> PathOf(const std::string& path) {
    Ref<System::File> f;
    System::GetSystemFactory()->GetFile(path, f);
    return f;
}

void WriteFile(const std::string& path, const std::string& text) {
    Ref<System::FileHandle> f;
    System::GetSystemFactory()->GetFileHandle(path, System::FileHandle::OPEN_WRITE, f);
    f->Write(text.data(), text.size());
    f->Flush();
    f->Close();
}

// The operation: a directory for a customer, then its settings file. With
// `crash` the process ends after the first file is written, before Finish.
void Operation(const std::string& customer, bool crash) {
    Ref<Logger> logger;
    GetDefaultLogger(logger);
    const std::string dir = "work/" + customer;
    const std::string file = dir + "/settings.txt";
    Ref<BasicFileOpsJournal> journal(new BasicFileOpsJournal(
        logger, 1, customer.data(), static_cast<std::uint32_t>(customer.size())));
    std::printf("journal %s: recording the operation for %s\n", journal->GetJrnlId().c_str(),
                customer.c_str());
    journal->AddStringFieldEntry("customer", customer);
    journal->CreateDirectory(dir);   // recorded first ...
    PathOf(dir)->MakeDirectories();  // ... then done
    journal->CreateRegularFile(file);
    WriteFile(file, "plan=gold\n");
    if (crash) {
        std::printf("crashing with %s and %s made, the journal unfinished\n", dir.c_str(),
                    file.c_str());
        std::fflush(stdout);
        std::_Exit(3);  // no destructors, no Finish: as a kill would leave it
    }
    journal->Finish(true);
    journal->DeleteJournal();
    std::printf("operation for %s finished; journal deleted\n", customer.c_str());
}

int Recover() {
    std::vector<JrnlFileState> unfinished;
    BasicFileOpsJournal::GetUnfinishedJournals(unfinished);
    std::printf("%zu unfinished journal(s)\n", unfinished.size());
    Ref<Logger> logger;
    GetDefaultLogger(logger);
    for (const JrnlFileState& state : unfinished) {
        if (!state.readable) {
            std::printf("  %s cannot be read (%s): left for an operator\n", state.path.c_str(),
                        state.failure.c_str());
            continue;
        }
        Ref<BasicFileOpsJournal> journal(new BasicFileOpsJournal(logger, state.path));
        std::printf("  %s (client data '%s'): %zu step(s) to undo\n", journal->GetJrnlId().c_str(),
                    state.header.GetClientData().c_str(), state.toUndo.size());
        for (const JrnlStepToUndo& step : state.toUndo) {
            std::printf("    undo entry %d:%s\n", step.index, step.entry->Describe().c_str());
            if (const JrnlFileEntry* f = dynamic_cast<const JrnlFileEntry*>(step.entry.Get())) {
                if (f->IsCreate() && PathOf(f->GetPath())->Exists()) PathOf(f->GetPath())->Delete();
            } else if (const JrnlDirEntry* d =
                           dynamic_cast<const JrnlDirEntry*>(step.entry.Get())) {
                if (d->IsCreate() && PathOf(d->GetPath())->Exists()) {
                    PathOf(d->GetPath())->DeleteEmptyDirectory();
                }
            }
            journal->UndoEntry(step.index);  // the undo is recorded once it is done
        }
        journal->Finish(true);
        journal->DeleteJournal();
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    try {
        Ref<Logger> logger;
        GetDefaultLogger(logger);
        if (!BasicFileOpsJournal::Init("journals", logger)) return 1;
        if (mode == "start")
            Operation("acme", true);
        else if (mode == "run")
            Operation("globex", false);
        else if (mode == "recover")
            return Recover();
        else {
            std::fputs("usage: journal_service start|run|recover\n", stderr);
            return 2;
        }
        BasicFileOpsJournal::Exit();
    } catch (const Exception& e) {
        std::fprintf(stderr, "journal_service: %s\n", e.what());
        return 1;
    }
    return 0;
}
