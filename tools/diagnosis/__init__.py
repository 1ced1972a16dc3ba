"""What diagnose_wav is made of: files are read (files), measured (channel, delay, linear,
library, all put together by measure), judged (findings) and shown (page, chart)."""
