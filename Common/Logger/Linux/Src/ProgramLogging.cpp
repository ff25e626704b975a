#include "Common/Logger/Linux/Src/ProgramLogging.h"

#include "Common/Logger/Linux/Src/LinuxDebugStore.h"
#include "Common/Platform/Src/DirectoryUtil.h"

namespace quorvan {

CRefCountPtr<FileStore> StartProgramLogging(const std::string& storeName)
{
    const std::string logDirectory =
        DirectoryUtil::DataDirectory("Quorvan", "Velorane", "Client/Logs", true, true);

    CRefCountPtr<ILogStore> fileStore;
    CreateFileStore(storeName, logDirectory, 0xa00000, &fileStore);
    CRefCountPtr<ILogStore> nativeStore;
    CreateNativeOsStore(&nativeStore);

    CRefCountPtr<ILogger> logger;
    GetLoggerInstance(&logger);
    logger->AddStore(fileStore);
    logger->AddStore(nativeStore);
    logger->SetLevel(0);

    // The logger keeps its own references to the stores.
    CRefCountPtr<FileStore> writer(dynamic_cast<FileStore*>(fileStore.Get()));
    if (writer) {
        writer->AddRef();
    }
    return writer;
}

} // namespace quorvan
