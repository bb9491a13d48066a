// The last include of every file that may run inside a signal handler.
//
// It poisons what has no place there: what allocates, takes a heap or stdio lock, or reads the locale. A slip does not
// compile. What such a file may call at all stands in signal_path.calls, each with its ground.
#pragma once

#pragma GCC poison malloc calloc realloc free strdup new_handler
#pragma GCC poison printf fprintf snprintf vsnprintf sprintf vsprintf puts fopen fdopen fclose fgets fscanf sscanf
#pragma GCC poison localtime localtime_r gmtime gmtime_r mktime strftime tzset
#pragma GCC poison getenv setenv exit atexit dlopen dlsym dlclose dlerror
#pragma GCC poison pthread_mutex_lock pthread_mutex_unlock pthread_rwlock_wrlock pthread_create
#pragma GCC poison strerror strtok strsignal backtrace_symbols opendir readdir usleep
