-- Makes of the documents' text what a terminal can show: tables, whose cells are long, become lists of
-- terms, links to documents name the page that has their text.

local pages = {["policy.md"] = "watchpost-policy(5)", ["operations.md"] = "watchpost(8)"}

function Link(link)
    return pages[link.target] and pandoc.Strong(pages[link.target]) or link.content
end

function Header(header)
    if header.level == 1 then
        return header:walk({Str = function(word) return pandoc.Str(pandoc.text.upper(word.text)) end})
    end
end

function Table(tbl)
    local simple = pandoc.utils.to_simple_table(tbl)
    local items = {}
    for _, row in ipairs(simple.rows) do
        local definition = pandoc.Blocks({})
        for column = 2, #row do
            local cell = row[column]
            if #cell > 0 then
                local words = pandoc.utils.blocks_to_inlines(cell)
                if column < #row then
                    words:insert(1, pandoc.Space())
                    words:insert(1, pandoc.Str(":"))
                    words = pandoc.utils.blocks_to_inlines(simple.headers[column]) .. words
                end
                definition:insert(pandoc.Para(words))
            end
        end
        table.insert(items, {pandoc.utils.blocks_to_inlines(row[1]), {definition}})
    end
    return pandoc.DefinitionList(items)
end
