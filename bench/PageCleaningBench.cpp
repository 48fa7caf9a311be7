// The page reader's cleaning of a full-size body: target under 5 ms for 80,000 bytes.
#include "skills/WebSkillService.h"

#include <benchmark/benchmark.h>

namespace {

// An article page of the usual shape: a head heavy with scripts and styles, navigation, paragraphs
// with Romanian text, inline scripts between them, and a footer.
QByteArray articlePage(qsizetype size)
{
    QByteArray page = "<!DOCTYPE html>\n<html lang=\"ro\">\n<head>\n<meta charset=\"utf-8\">\n"
                      "<title>Brașov — Wikipedia</title>\n"
                      "<style>\n body { font-family: sans-serif; }\n .nav > li { display: inline-block; }\n"
                      " @media (max-width: 600px) { .content { padding: 0 8px; } }\n</style>\n"
                      "<script>\n(function(){ var q = window.RLQ || []; for (var i = 0; i < q.length; i++) {\n"
                      "  if (q[i] && q[i].length > 1) { q[i][1](); } } })();\n</script>\n</head>\n<body>\n"
                      "<ul class=\"nav\"><li><a href=\"/wiki/Pagina_principală\">Pagina principală</a></li>"
                      "<li><a href=\"/wiki/Special:Aleatoriu\">Articol aleatoriu</a></li></ul>\n";
    const QByteArray paragraph
        = "<div class=\"mw-parser-output\"><p>Brașovul este <b>reședința</b> județului <a "
          "href=\"/wiki/Brașov_(județ)\" "
          "title=\"Județul Brașov\">Brașov</a>, situat în centrul țării, la poalele munților Tâmpa și Postăvarul. "
          "Orașul păstrează&nbsp;o parte însemnată din fortificațiile medievale, iar Biserica Neagră este cel mai "
          "mare lăcaș de cult gotic din sud-estul Europei.</p>\n"
          "<script type=\"application/json\">{\"wgPageName\":\"Brașov\",\"wgCategories\":[\"Orașe\"]}</script>\n"
          "<table class=\"infobox\"><tr><th scope=\"row\">Populație</th><td>237.589 locuitori</td></tr></table>\n"
          "<style>.infobox { float: right; }</style></div>\n";
    while (page.size() < size)
        page += paragraph;
    page.truncate(size);
    return page;
}

void pageCleaning(benchmark::State &state)
{
    const QByteArray page = articlePage(80'000);
    for (auto _ : state) {
        QString text = WebSkillService::readableText(page);
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(state.iterations() * page.size());
}

} // namespace

BENCHMARK(pageCleaning)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
