Restore/kernelcache.release.x10
Restore/kernelcache.release.x10
