/* The layout of every public record and the constants that are ABI, written from the contract's lists.
 * Included after qvrt.h alone, by a C11 program and by C++ ones: that they compile is the test. */
#ifdef __cplusplus
#define HOLDS(fact) static_assert(fact, #fact)
#define ALIGNMENT alignof
#else
#define HOLDS(fact) _Static_assert(fact, #fact)
#define ALIGNMENT _Alignof
#endif
#define SIZE(record, bytes, alignment) \
  HOLDS(sizeof(record) == (bytes));    \
  HOLDS(ALIGNMENT(record) == (alignment))
#define AT(record, field, offset) HOLDS(offsetof(record, field) == (offset))

SIZE(QV_SPIN_LOCK, 24, 8);
AT(QV_SPIN_LOCK, owner, 0);
AT(QV_SPIN_LOCK, state, 8);
AT(QV_SPIN_LOCK, recursionCount, 12);
AT(QV_SPIN_LOCK, spinCount, 16);

SIZE(QV_SHARED_EXCLUSIVE_LOCK, 32, 8);
AT(QV_SHARED_EXCLUSIVE_LOCK, state, 0);
AT(QV_SHARED_EXCLUSIVE_LOCK, readerCount, 4);
AT(QV_SHARED_EXCLUSIVE_LOCK, owner, 8);
AT(QV_SHARED_EXCLUSIVE_LOCK, writerWaiting, 16);
AT(QV_SHARED_EXCLUSIVE_LOCK, recursionCount, 20);
AT(QV_SHARED_EXCLUSIVE_LOCK, spinCount, 24);

SIZE(QV_STRING, 24, 8);
AT(QV_STRING, length, 0);
AT(QV_STRING, capacity, 4);
AT(QV_STRING, category, 8);
AT(QV_STRING, buffer, 16);

SIZE(QV_SLAB, 40, 8);
AT(QV_SLAB, nextSlab, 0);
AT(QV_SLAB, previousSlab, 8);
AT(QV_SLAB, freeList, 16);
AT(QV_SLAB, freeCount, 24);
AT(QV_SLAB, units, 28);
AT(QV_SLAB, chunkCount, 32);
AT(QV_SLAB, magic, 36);
AT(QV_SLAB, category, 38);
AT(QV_SLAB, slabSizeShift, 39);

SIZE(QV_SIZE_CLASS, 40, 8);
AT(QV_SIZE_CLASS, lock, 0);
AT(QV_SIZE_CLASS, firstSlab, 24);
AT(QV_SIZE_CLASS, units, 32);

SIZE(QV_MEMORY_CATEGORY_INFO, 48, 8);
AT(QV_MEMORY_CATEGORY_INFO, name, 0);
AT(QV_MEMORY_CATEGORY_INFO, bytesAllocated, 32);
AT(QV_MEMORY_CATEGORY_INFO, bytesAllocatedAtPeak, 40);

SIZE(QV_XML_FILE, 48 + 65536, 8);
AT(QV_XML_FILE, stream, 0);
AT(QV_XML_FILE, fileName, 8);
AT(QV_XML_FILE, depth, 16);
AT(QV_XML_FILE, lock, 24);
AT(QV_XML_FILE, scratch, 48);

SIZE(QVLOG_MESSAGE, 24, 8);
AT(QVLOG_MESSAGE, name, 0);
AT(QVLOG_MESSAGE, argumentNames, 8);
AT(QVLOG_MESSAGE, flags, 16);
AT(QVLOG_MESSAGE, sourceHandle, 20);

SIZE(CommandRecord, 4372, 4);
AT(CommandRecord, arguments, 0);
AT(CommandRecord, payload, 20);

SIZE(CommandArea, 21868, 4);
AT(CommandArea, ready, 0);
AT(CommandArea, pending, 4);
AT(CommandArea, records, 8);

SIZE(AnnotationRecord, 48, 8);
AT(AnnotationRecord, address, 0);
AT(AnnotationRecord, name, 8);
AT(AnnotationRecord, expression, 16);
AT(AnnotationRecord, probeSize, 24);
AT(AnnotationRecord, hasLocation, 28);
AT(AnnotationRecord, locationValue, 32);
AT(AnnotationRecord, isRegister, 40);
AT(AnnotationRecord, registerOffset, 44);

SIZE(ZcaTableHeader11, 36, 4);
AT(ZcaTableHeader11, magic, 0);
AT(ZcaTableHeader11, version, 16);
AT(ZcaTableHeader11, entryCount, 18);
AT(ZcaTableHeader11, stringOffset, 20);
AT(ZcaTableHeader11, stringBytes, 24);
AT(ZcaTableHeader11, expressionOffset, 28);
AT(ZcaTableHeader11, expressionBytes, 32);

SIZE(ZcaTableHeader12, 48, 8);
AT(ZcaTableHeader12, magic, 0);
AT(ZcaTableHeader12, version, 16);
AT(ZcaTableHeader12, entryCount, 20);
AT(ZcaTableHeader12, stringOffset, 24);
AT(ZcaTableHeader12, stringBytes, 28);
AT(ZcaTableHeader12, expressionOffset, 32);
AT(ZcaTableHeader12, expressionBytes, 36);
AT(ZcaTableHeader12, flags, 40);

SIZE(ZcaValue, 16, 8);
AT(ZcaValue, value, 0);

SIZE(ZcaDefinition, 48, 8);
AT(ZcaDefinition, offset, 0);
AT(ZcaDefinition, name, 8);
AT(ZcaDefinition, modulePath, 16);
AT(ZcaDefinition, hasValue, 24);
AT(ZcaDefinition, value, 32);
AT(ZcaDefinition, next, 40);

SIZE(ModuleRecord, 32, 8);
AT(ModuleRecord, handle, 0);
AT(ModuleRecord, start, 8);
AT(ModuleRecord, end, 16);
AT(ModuleRecord, forward, 24);

SIZE(QV_DEBUG_CHANNEL, 16, 8);
AT(QV_DEBUG_CHANNEL, mask, 0);
AT(QV_DEBUG_CHANNEL, name, 8);

SIZE(QV_HASH_BUCKET, 40, 8);
AT(QV_HASH_BUCKET, lock, 0);
AT(QV_HASH_BUCKET, head, 32);

SIZE(QV_HASH_ENTRY, 56, 8);
AT(QV_HASH_ENTRY, next, 0);
AT(QV_HASH_ENTRY, key, 8);
AT(QV_HASH_ENTRY, data, 16);
AT(QV_HASH_ENTRY, lock, 24);

SIZE(QV_HASH_TABLE, 104, 8);
AT(QV_HASH_TABLE, lock, 0);
AT(QV_HASH_TABLE, hashFunctions, 32);
AT(QV_HASH_TABLE, compareKeys, 56);
AT(QV_HASH_TABLE, releaseKey, 64);
AT(QV_HASH_TABLE, buckets, 72);
AT(QV_HASH_TABLE, bucketCount, 80);
AT(QV_HASH_TABLE, bucketBits, 84);
AT(QV_HASH_TABLE, count, 88);
AT(QV_HASH_TABLE, level, 92);
AT(QV_HASH_TABLE, flags, 96);

SIZE(QV_QUEUE_NODE, 16, 8);
AT(QV_QUEUE_NODE, value, 0);
AT(QV_QUEUE_NODE, next, 8);

SIZE(QV_QUEUE, 88, 8);
AT(QV_QUEUE, head, 0);
AT(QV_QUEUE, tail, 8);
AT(QV_QUEUE, anchor, 16);
AT(QV_QUEUE, headLock, 32);
AT(QV_QUEUE, tailLock, 56);
AT(QV_QUEUE, flags, 80);
AT(QV_QUEUE, userFlag, 84);

SIZE(QV_VECTOR, 6152, 8);
AT(QV_VECTOR, pages, 0);
AT(QV_VECTOR, firstPage, 4096);
AT(QV_VECTOR, sizeAndCategory, 6144);

SIZE(QV_RED_BLACK_TREE, 48, 8);
AT(QV_RED_BLACK_TREE, root, 0);
AT(QV_RED_BLACK_TREE, nil, 8);
AT(QV_RED_BLACK_TREE, compare, 16);
AT(QV_RED_BLACK_TREE, destroyItem, 24);
AT(QV_RED_BLACK_TREE, destroyKey, 32);
AT(QV_RED_BLACK_TREE, category, 40);
AT(QV_RED_BLACK_TREE, count, 44);

SIZE(QV_RED_BLACK_NODE, 72, 8);
AT(QV_RED_BLACK_NODE, tree, 0);
AT(QV_RED_BLACK_NODE, left, 8);
AT(QV_RED_BLACK_NODE, right, 16);
AT(QV_RED_BLACK_NODE, parent, 24);
AT(QV_RED_BLACK_NODE, prev, 32);
AT(QV_RED_BLACK_NODE, next, 40);
AT(QV_RED_BLACK_NODE, key, 48);
AT(QV_RED_BLACK_NODE, item, 56);
AT(QV_RED_BLACK_NODE, color, 64);

SIZE(QV_SET_CHUNK, 24, 8);
AT(QV_SET_CHUNK, next, 0);
AT(QV_SET_CHUNK, index, 8);
AT(QV_SET_CHUNK, bits, 12);

SIZE(QV_SET, 16, 8);
AT(QV_SET, chunks, 8);

SIZE(QV_MULTISET_CHUNK, 280, 8);
AT(QV_MULTISET_CHUNK, next, 0);
AT(QV_MULTISET_CHUNK, index, 8);
AT(QV_MULTISET_CHUNK, bits, 12);
AT(QV_MULTISET_CHUNK, multiplicity, 24);

SIZE(QV_MULTISET, 16, 8);
AT(QV_MULTISET, chunks, 8);

SIZE(QV_RANGE_TABLE, 32, 8);
AT(QV_RANGE_TABLE, flags, 0);
AT(QV_RANGE_TABLE, minLevel, 4);
AT(QV_RANGE_TABLE, maxLevel, 8);
AT(QV_RANGE_TABLE, destroyItem, 16);
AT(QV_RANGE_TABLE, levels, 24);

SIZE(QV_RANGE_RECORD, 48, 8);
AT(QV_RANGE_RECORD, marker, 0);
AT(QV_RANGE_RECORD, start, 8);
AT(QV_RANGE_RECORD, end, 16);
AT(QV_RANGE_RECORD, table, 24);
AT(QV_RANGE_RECORD, item, 32);
AT(QV_RANGE_RECORD, references, 40);

SIZE(QV_RANGE_LINK, 16, 8);
AT(QV_RANGE_LINK, next, 0);
AT(QV_RANGE_LINK, record, 8);

#ifdef __cplusplus
SIZE(CollectorCommandHandler, 4136, 8);
AT(CollectorCommandHandler, sharedArea, 0);
AT(CollectorCommandHandler, lockFilePath, 8);
AT(CollectorCommandHandler, commandCallback, 4104);
AT(CollectorCommandHandler, callbackContext, 4112);
AT(CollectorCommandHandler, lockFileDescriptor, 4120);
AT(CollectorCommandHandler, sharedMemoryId, 4124);
AT(CollectorCommandHandler, semaphoreId, 4128);
#endif

HOLDS(QV_STARTUP_RESULT == 0x0C100002);
HOLDS(QV_SLAB_MAGIC == 0xBEEF && QV_LARGE_CHUNK_MARK == 0xBEEF);
HOLDS(QV_MEMORY_CATEGORIES == 64 && QV_SIZE_CLASSES == 2046 && QV_LARGEST_SMALL_REQUEST == 32728);
HOLDS(QV_RESERVE_BYTES == 33554416 && QV_MEMORY_COLLECTORS == 16);
HOLDS(QVLOG_SEVERITY_ERROR == 0 && QVLOG_SEVERITY_WARNING == 1 && QVLOG_SEVERITY_INFO == 2);
HOLDS(QVLOG_FLAG_FREE_TEXT == 1 && QVLOG_FLAG_COMMENT == 2 && QVLOG_FLAG_NO_DISPLAY == 4);
HOLDS(QVLOG_ARG_STRING == 0x3EDE9134 && QVLOG_ARG_INTEGER == 0x4AFE0077 &&
      QVLOG_ARG_POINTER == 0x20FB6DE);
HOLDS(QVLOG_MSG_COMMENT == 0 && QVLOG_MSG_INTERNAL == 1);
HOLDS(QV_HEARTBEAT_CODE == 69648 && QVCMDHDLR_CLEAN_ALL == 0 && QVCMDHDLR_CLEAN_DETACH == 1);
HOLDS(QV_HASH_TABLE_NO_LOCKING == 0x2 && QV_HASH_TABLE_512_BUCKETS == 0x8);
HOLDS(QV_HASH_TABLE_1024_BUCKETS == 0x10 && QV_HASH_TABLE_CUSTOM_KEYS == 0x80);
HOLDS(QV_QUEUE_LOCKED == 0x2 && QV_RB_BLACK == 0 && QV_RB_RED == 1);
HOLDS(QV_RANGE_TABLE_UNSHARED_BLOCKS == 1 && QV_RANGE_RECORD_MARKER == 0xFFFFFFFFFFFFFFFF);
