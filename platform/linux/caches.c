// SPDX-License-Identifier: GPL-2.0-only
/*
 * Slab caches.
 *
 * Each stands in the kernel's lists under exactly the name that the core gave it, where an administrator finds the
 * memory of a backup. It is never merged with another cache of its size: a merged one has the other's name, and links
 * that the kernel makes for it stay behind.
 *
 * The core may have two caches of one name: two backups of one device, when the first one's file was overtaken and is
 * still open. The kernel's allocators refuse that, not all of them without harm. So only the first is a cache of the
 * kernel's; the objects of the other are allocated one by one.
 *
 * The core destroys caches with its locks held, and the kernel takes caches off the files that it shows them in: an old one
 * under a lock inside which it also writes to the memory of whoever lists such files, and may so wait for an address space
 * that waits for the core. So a cache goes at the end of the command or release, with nothing locked.
 */
#include "glue.h"

struct qdr_kmem_cache {
	struct list_head list;
	struct qdr_kmem_cache *next; /* destroyed by the same call */
	struct kmem_cache *kernels; /* null: the name is taken by another cache */
	size_t bytes;
	char name[]; /* the kernel keeps a pointer to it */
};

static LIST_HEAD(caches);
static DEFINE_MUTEX(caches_lock); /* `caches`; innermost but for the kernel's own locks */

/* The caller holds caches_lock. */
static bool name_is_taken(const char *name)
{
	struct qdr_kmem_cache *cache;

	list_for_each_entry(cache, &caches, list)
		if (cache->kernels && !strcmp(cache->name, name))
			return true;
	return false;
}

struct qdr_kmem_cache *qk_kmem_cache_create(const char *name, size_t bytes)
{
	size_t name_bytes = strlen(name) + 1;
	struct qdr_kmem_cache *cache;

	qdr_may_sleep();
	cache = kmalloc(sizeof(*cache) + name_bytes, GFP_KERNEL | __GFP_NOWARN);
	if (!cache)
		return NULL;
	cache->kernels = NULL;
	cache->bytes = bytes;
	memcpy(cache->name, name, name_bytes);
	mutex_lock(&caches_lock);
	if (!name_is_taken(name)) {
		cache->kernels = family_own_cache(cache->name, bytes, SLAB_HWCACHE_ALIGN);
		if (!cache->kernels) {
			mutex_unlock(&caches_lock);
			kfree(cache);
			return NULL;
		}
	}
	list_add(&cache->list, &caches);
	mutex_unlock(&caches_lock);
	return qdr_count(cache, QDR_HELD_CACHES);
}

void *qk_kmem_cache_alloc(struct qdr_kmem_cache *cache, qdr_gfp_type gfp)
{
	qdr_may_sleep();
	return qdr_count(cache->kernels ? kmem_cache_alloc(cache->kernels, qdr_gfp(gfp)) : kmalloc(cache->bytes, qdr_gfp(gfp)),
			 QDR_HELD_OBJECTS);
}

void qk_kmem_cache_free(struct qdr_kmem_cache *cache, void *object)
{
	if (cache->kernels)
		kmem_cache_free(cache->kernels, object);
	else
		kfree(object);
	atomic_dec(&qdr_held[QDR_HELD_OBJECTS]);
}

/* With the lock held to its end: until then the kernel knows the name. */
static void destroy(struct qdr_kmem_cache *cache)
{
	list_del(&cache->list);
	if (cache->kernels)
		kmem_cache_destroy(cache->kernels);
	kfree(cache);
	atomic_dec(&qdr_held[QDR_HELD_CACHES]);
}

void qk_kmem_cache_destroy(struct qdr_kmem_cache *cache)
{
	struct qdr_call *call = qdr_current_call();

	if (!cache)
		return;
	if (call) {
		cache->next = call->caches;
		call->caches = cache;
		return;
	}
	qdr_may_sleep();
	mutex_lock(&caches_lock);
	destroy(cache);
	mutex_unlock(&caches_lock);
}

void qdr_destroy_deferred(struct qdr_call *call)
{
	if (!call->caches)
		return;
	mutex_lock(&caches_lock);
	while (call->caches) {
		struct qdr_kmem_cache *cache = call->caches;

		call->caches = cache->next;
		destroy(cache);
	}
	mutex_unlock(&caches_lock);
}

void qdr_caches_exit(void)
{
	while (!list_empty(&caches))
		destroy(list_first_entry(&caches, struct qdr_kmem_cache, list));
}
