Restore/kernelcache.restore.x10
Restore/kernelcache.restore.x10
