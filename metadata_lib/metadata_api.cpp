// The source engine: lifecycle, the metadata thread, sources and their receive roads.
#include "metadata_api.h"

#define MD_MODULE "metadata_api"
#include "md_log.h"

HDBG g_hMetaDataLibDbg = nullptr;
HDBG g_hCoTConvDbg = nullptr;

BOOL g_bMetaDataLibInitialized = FALSE;
DWORD g_dwLibCaps = 0;
pthread_mutex_t g_MetaDataAPIMutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
FLIST_D g_MetaDataSrcList = {{'F', 'L', 'S', 'T'}, nullptr, nullptr};
HFDSET g_hMetaDataFDSet = nullptr;
FILE* g_XMLOutFP = nullptr;

HTHREAD _g_hMetaDataProcessingThread = nullptr;
HMBOX _g_hMetaDataThreadMBox = nullptr;
WAIT_COND _g_MetaDataThreadCond;
BOOL _g_bShutdownThread = FALSE;
BOOL _g_bUsingInternalThread = FALSE;
BOOL _g_bCoTSupportEnabled = FALSE;
BOOL _g_bGridInitialized = FALSE;
struct timeval _g_ThreadSelectTimeOut = {1, 0};
struct timeval* _g_pCurrentThreadSelectTimeOut = nullptr;
BOOL _g_bSelectTimeOutChanged = TRUE;
VIDEO_EXTRACTOR _g_aVideoExtractors[4] = {{-1, 0}, {-1, 0}, {-1, 0}, {-1, 0}};
time_t _tLastLog = 0;
time_t _tLastLogTime = 0;

pthread_mutex_t _g_SrcListLock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t _g_XMLOutLock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t _g_SenderLock = PTHREAD_MUTEX_INITIALIZER;
