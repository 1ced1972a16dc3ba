"""What diagnose_wav is made of: files are read (files), measured (channel, delay, linear, echo,
library, all put together by measure) into a record, judged (findings) and shown (page, chart)."""
