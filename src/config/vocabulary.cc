// The names of sections and entries in the product's configuration files, for its components: each
// followed by its terminator, with two more after the last.
#include "config/vocabulary.h"

#include <kel/probes.h>

#include <cstddef>
#include <string_view>

constexpr char _kel_config_section_string_table_[] =
    "CA\0Cache\0ContentRouter\0Control\0CRDataStore\0DataCheck\0DataConvert\0Debug\0EventLog\0"
    "Events\0FeatureToggle\0FibreChannel\0GarbageCollector\0Logging\0Main\0MBS\0Metabase\0"
    "Monitor\0Paths\0Product\0Progress\0ReferenceDatabase\0SPA\0Spooler\0SSL\0StorageDaemon\0"
    "StorageDatabase\0SystemAccount\0TaskManager\0KOFS\0Backup\0Restore\0StorageIndex\0"
    "Replication\0Ctrl\0AdaptiveCompression\0Stratovane\0KMSOptions\0S3SRV\0Cluster\0ImageShare\0"
    "AgingCheck\0\0";

constexpr char _kel_config_entry_string_table_[] =
    "Active\0AgentID\0AllocationUnitSize\0AllowRoot\0Authorization_Url\0Bits\0BytesReceive\0"
    "BytesSent\0CAFilename\0CertFilename\0CheckpointInterval\0CleanupInterval\0ConfigFilePath\0"
    "Confirmation\0ContentRouterID\0DebugFilter\0DefaultSegmentSize\0DirtyReads\0"
    "DisableMD5Passwd\0DMax\0DOReceive\0DOSent\0FMax\0Groups\0Guest\0Height\0HistoryPath\0"
    "Iprange\0KeepProcessedBin\0KeepProcessedTlog\0ListenOn\0LockPages\0LogForward\0Logging\0"
    "Login\0LogPath\0MaintenanceApps\0MaxCacheSize\0MaxConnections\0MaxCPU\0MaxDoSize\0"
    "MaxFileSize\0MaxMem\0MaxProcess\0MaxRetryCount\0MaxSegmentCount\0MaxSegmentSize\0MaxStreams\0"
    "MaxTransactions\0MaxTransferRate\0MaxWastedSpace\0MinFreeThreshold\0Passwd\0Password\0Path\0"
    "Persistent\0PollInterval\0PoolSize\0OptDirListing\0POReceive\0Port\0POSent\0"
    "PrevRouteTableLocation\0PrivateKeyFilename\0ProcessedPath\0ProductName\0Proxy\0ProxyLogin\0"
    "ProxyPassword\0ReadBufferSize\0ReadWrite\0ReadWriteLocks\0ReloadInterval\0ReportInterval\0"
    "Retention\0RouteTableLocation\0RTDir\0Run\0ServerOptions\0EncryptionMode\0SessionEncryption\0"
    "SessionTimeout\0ShortCompanyName\0ShowIcon\0SizeCheck\0SOReceive\0SOSent\0"
    "SPAConnectInterval\0SPAConnectAttempts\0SSL\0Storage\0StoragePoolID\0TaskCapture\0"
    "TaskCaptureFail\0TaskControl\0TaskControlFail\0TaskReceive\0TaskReceiveFail\0Tasks\0"
    "TaskUnknown\0TCPKeepAlive\0TCPKeepAlive\0TCPReceiveBufferSize\0TCPSendBufferSize\0Timeout\0"
    "TimeoutConnection\0TimeoutResponse\0TmpPath\0Trace\0Type\0URL\0Users\0Width\0WorkerThreads\0"
    "WriteBufferSize\0Yield\0SmallFileThreshold\0SizeCheckEntryInterval\0SizeCheckDataInterval\0"
    "VeryLowSpaceMaxTlogs\0PerformanceStats\0SyncMethod\0FingerprintType\0KeyDir\0"
    "ManagerThreadStackSize\0TaskThreadStackSize\0DontSegmentThreshold\0DontSegmentTypes\0ACL\0"
    "BandwidthLimit\0CheckIfExists\0Compress\0Encrypt\0PreserveAccessTime\0NoArchiveBit\0"
    "SegmentCache\0SegmentSize\0ServerCrypt\0SnapshotDriveList\0TransactionSize\0VSS\0DOType\0"
    "RetentionMargin\0RetentionWarningLevel\0RetentionCriticalLevel\0RetentionRefreshInterval\0"
    "EnableSync\0SyncIntervalInMB\0SyncIntervalInSecond\0MaxBufSize\0MaxNumEntriesForOneBuf\0"
    "MaxNumFiles\0MaxFileSize\0IgnoreContainerSizeCheck\0MaxNumEntriesForOneContainer\0"
    "ThreadStackSize\0MaxNumCaches\0MaxNumRecvBufs\0VTLPresendSegments\0VTLAlwaysSendSegments\0"
    "VerifyBackupWrite\0NumConWriteFiles\0MaxOpenContainers\0UseDirectIO\0DedicatedContainer\0"
    "MinVolumeSize\0MinVolumeFactor\0CompactBatchNum\0CompactThreshold\0CompactLBound\0"
    "CompactSizeLBound\0CompactWakeupInterval\0ReadBusyThreshold\0VerifyCompactionWrite\0"
    "EnableCompactCandidateCheck\0CompactFreeSpaceThreshold\0CheckStoreBusyInterval\0SortLimits\0"
    "QueueProcessingStartTimes\0QueueProcessingMaximumQueueAge\0DelayedDOSize\0MaxSOCacheSize\0"
    "BufferPoolChunks\0BufferPoolChunkOverheadPct\0BufferPoolChunkOverheadBytes\0"
    "BufferPoolMaxChunkSize\0BufferPoolMaxUnusedMem\0BufferPoolCleanupInterval\0TOLQ\0"
    "SchedInterval\0PluginPath\0EvLogFilePath\0MaxEvLogFileSize\0Var\0EtcDirectory\0"
    "MaxSegmentPrefetchSize\0SegmentChunkSize\0EtcPath\0BinDirectory\0PID\0CompanyName\0Temp\0"
    "Address\0VerifyReplacement\0LogMaxSize\0FibreChannel\0BackupRestoreRange\0ReplicationRange\0"
    "TCPort\0DLDPort\0MinRerouteDuration\0AdaptiveCompressionRatio\0SampleRatio\0"
    "CompressionLowerBound\0WriteThreadNum\0AgeLimit\0CountLimit\0PrefetchThreadNum\0"
    "SharedMemoryBufferSize\0SharedMemoryEnabled\0SharedMemoryTimeout\0ReconnectTimeout\0"
    "NetworkResiliency\0EnableDataCheck\0DataCheckDays\0DataCheckStartTime\0DataCheckTimesPerDay\0"
    "DataCheckMinBatchSize\0SendPOCountEachTime\0EnableCRCCheck\0CRCCheckSleepSeconds\0"
    "CRCCheckBatchNum\0CRCCheckVerifySOFP\0EnableDataCheckAlert\0EnableFixContainer\0"
    "ShutdownCRWhenError\0RefDBPath\0RefDBDCSize\0LockPoolSize\0HistoryAge\0CachePartitionNum\0"
    "EnableLocalPredictiveSamplingCache\0WaitTimeForPredictiveCacheFull\0"
    "FailJobWhenPredictiveCacheFull\0RemoteTempPredictiveCachePercent\0BasePredictiveCacheSize\0"
    "MaxPredictiveCacheFactor\0ReservedPredictiveCachePercent\0MaxRefOPEntriesPerSwapFile\0"
    "MaxConcurrentSwapFiles\0FPDCIDMemCacheSize\0MaxDCRefCount\0SharedMemoryTimeoutRetries\0"
    "TlogFileWarningAge\0RebaseScatterThreshold\0RebaseMinContainers\0RebaseMaxPercentage\0"
    "RebaseMaxTime\0RebaseLocalityThreshold\0RebaseBaseDataContainerNum\0SampledCheckCRC\0"
    "LoadAllContainers\0DisableCacheLoad\0MaxReadAhead\0DCHeaderHashSize\0NumSpoolerContext\0"
    "CRQPBatchRefOpCount\0EnableRecentBackupCheck\0DisableCatalogAutoFixJournal\0"
    "EnableCatalogBackup\0EnableCatalogAutoRecover\0CatalogBackupVersions\0CatalogShadowPath\0"
    "CatalogShadowPoolSize\0CatalogAppDBCacheSize\0PrefetchPoolNum\0PrefetchPoolSizeM\0"
    "PrefetchReaderMaxWait\0PrefetchReaderPercentage\0PrefetchVeryGoodLocalityThreshHold\0"
    "PrefetchGoodLocalityThreshHold\0PrefetchBadLocalityThreshHold\0PrefetchSeekDistance\0"
    "PrefetchLeastEffectivenessThreshHold\0PrefetchedTotalPercentage\0PrefetchManyThreadsOneDC\0"
    "PrefetchEachThreadSONum\0PrefetchPutSoNumOnce\0PrefetchCacheHitPercentage\0"
    "PrefetchSleepTimeForUnexpectedWakeup\0PrefetchTraceLevel\0PrefetchGroupNum\0"
    "PrefetchLeastSelfReadPercentage\0PrefetchLessThreadsForLessStreams\0PrefetchLessThreadsNum\0"
    "PrefetchLessStreamsNum\0PrefetchLessStreamsLocality\0LoadBalanceAlgorithm\0"
    "LoadBalanceInterval\0PersistSourceMapInterval\0Threadnumber\0CRQPThreadNum\0WWNS\0"
    "FastCRCCheckThreadNum\0RecoverMode\0FastCompactCheckThreadNum\0EncryptionConversionCheck\0"
    "DisableDataConvertFeature\0EnableDataConvert\0VerifyDataConvert\0DataConvertSleepSeconds\0"
    "DataConvertBatchNum\0DataConvertThreadNum\0CacheValidTime\0DisableSendToCloud\0"
    "CloudBucketName\0SecureComm\0FPMapCacheSize\0FPMapCacheReclaimNum\0FIPS\0KMSEnable\0KMSType\0"
    "KMSUpdateInterval\0KMSServerName\0KMSKeyGroupName\0AWSAccessKey\0AWSSecretKey\0AWSRegion\0"
    "AWSUseProxy\0AWSProxyInfo\0SPCacheEnable\0EnableIMandTIR\0IMandTIRinLocalLSU\0"
    "IMandTIRinCloudLSU\0ImagePropinLocalLSU\0ImageSharingInCloud\0CompactMaxPO\0KoExtentSize\0"
    "VAULTDType\0CatalogVAULTDUrl\0CertFile\0KeyFile\0CACertFile\0AlternativeInterfaces\0"
    "DsStatInterval\0WORM\0LivingTimeThreshold\0RetentionTimeThreshold\0DOVerifyEnable\0"
    "DOVerifyBatchDOCount\0DOVerifyBatchSizeMB\0DOVerifyCheckSOData\0MaxCRQPRunMinutes\0"
    "MultiDomainConflictCheck\0MultiDomainConflictCheckPeriod\0MultiDomainConflictCheckOccurance\0"
    "CloudUploadCacheSize\0CloudMetaCacheSize\0CloudDataCacheSize\0CloudMapCacheSize\0"
    "CloudLSUCheckInterval\0MaxCloudLSUCount\0SyncCatalogToCloud\0"
    "SyncCatalogToCloudForImageDeletion\0SWEEPDDownloadTmpPath\0CloudBits\0PCacheBits\0"
    "SCacheBits\0LastImageTimeSpan\0AutoCloudSeeding\0AutoSeedingMaxCount\0UsableMemoryLimit\0"
    "MaxRefNode\0VaultdConnThrottle\0EnableSamplingCache\0MaxSamplingCacheSize\0"
    "SamplingCacheSOCheckCount\0SamplingPercent\0SamplingCacheSOLoadCountPerBlock\0"
    "SamplingCacheSOCountPerBlock\0SamplingCacheMinDOSize\0SamplingCacheSOHitThreshold\0"
    "SamplingCacheLowDedupeRateThreshold\0SamplingCacheLoadDOCount\0SamplingCacheRefdbCheckTime\0"
    "FirstTimeBackupBasesidCheckThreshold\0LastimageLoadTimeout\0DryrunMode\0"
    "BackupThrottleTimeWhenPCacheFull\0EnableSamplingCacheDump\0SamplingCacheRecycleDCNumber\0"
    "EnableInMemRefTable\0InMemRefTableLookupLowThreshold\0ClusterLoadSamplingCacheThreadNum\0"
    "ClusterSearchSamplingCacheThreadNum\0ClusterSamplingCacheCancelCheckInterval\0"
    "EnableGlobalDedupe\0EnablePOIDListCache\0EnableAgingCheck\0AgingCheckSleepSeconds\0"
    "AgingCheckBatchNum\0AgingCheckContainerInterval\0AgingCheckSizeLowBound\0"
    "AgingCheckLowThreshold\0AgingCheckAllContainers\0AgingCheckAgeNoReference\0AgingCheckMaxPO\0"
    "PartitionID\0BackupStatsReportSchedTime\0ClientReconnectTimeout\0ControllerReconnectTimeout\0"
    "RefreshPeersInterval\0RefreshPeersTimeout\0AuditCheckInterval\0AuditRetryInterval\0"
    "AuditBatchInterval\0AuditBatchSize\0AuditIdleTime\0LeaderWorkerThreads\0"
    "SecondaryWorkerThreads\0CloudDbPath\0CacertPath\0MaxPredictiveCacheSize\0"
    "MaxDOFPBatchQueryCount\0FPBatchQueryCacheLookupCount\0SamplingCacheStatsInterval\0"
    "LastImageRound\0EnableParentJobID\0LastFullMaxImageCount\0LastFullMaxImageCountSmallDO\0"
    "LastFullSmallDOSize\0LastImageSizeFactor\0LastImageDCIDThreshold\0LastImageSameDCID\0"
    "LastImageMinSize\0LastImageMinSizeFactor\0CompleteLastImage\0VMotion\0Log\0"
    "ShadowCopyVolumes\0MaxPcacheSizeFailover\0MaxScacheSizeFailover\0MaxCacheSizeFailover\0"
    "UsableMemoryLimitFailover\0YARLCacheMgrThreads\0YarlPCacheReloadThreshold\0"
    "YarlPCacheDedupeWindowLength\0YarlCloudFPIndexRemovalThreshold\0DNSCacheTimeoutSecond\0"
    "LoadSCacheDumpfileThreadNum\0DumpSCacheThreadNum\0HistoryAgeList\0HistoryCleanEmpty\0"
    "A2cCacheBuildThreadNum\0KeyTagInDC\0KEKRenewSchedule\0\0";

namespace kel::config {
namespace {

/// Where `name` is in a table; none of those asked for is missing, or this would not compile.
template <std::size_t Size>
consteval const char* name_in(const char (&table)[Size], std::string_view name) {
  const char* at = table;
  while (at != name) at += std::string_view(at).size() + 1;
  return at;
}

}  // namespace

constinit const char* const kLoggingSection = name_in(_kel_config_section_string_table_, "Logging");
constinit const char* const kLoggingEntry = name_in(_kel_config_entry_string_table_, "Logging");
constinit const char* const kRetentionEntry = name_in(_kel_config_entry_string_table_, "Retention");

}  // namespace kel::config
